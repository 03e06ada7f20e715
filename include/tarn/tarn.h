/*
 * Tarn: one conversation between two peers over datagrams.
 *
 * A session carries reliable, ordered messages, of any size that fits into the send window (32
 * segments of 1400 bytes unless set), and unreliable single datagrams to one peer. The library owns
 * no socket here: the application hands every datagram that it receives to tarn_input() and sends
 * every datagram that the session gives to its output callback.
 *
 *   tarn_init();                                    once, before the first session
 *   void* session = tarn_create();
 *   tarn_set_output_callback(session, send_to_peer, &peer);
 *   tarn_set_recv_reliable_callback(session, on_message, &app);
 *   tarn_send_reliable(session, data, len);
 *   tarn_input(session, datagram, size);            for every datagram received
 *   tarn_destroy(session);
 *
 * tarn_init() comes first: tarn_create(), tarn_update() and tarn_check_update_ms() before it abort
 * the process: a line on standard error says what is missing, and the assertion "0L != px" follows.
 *
 * Handles. A session is known by an opaque handle. A handle is good from tarn_create() until the
 * worker thread has carried out tarn_destroy() or tarn_wait_destroy(). Any other value, null and
 * stale handles included, is a bad handle: the call logs one line at level 2, does nothing else and
 * returns the value given below. An address may be used again for a later session, so forget a
 * handle once it has been destroyed.
 *
 * Threads. Every call may be made from any thread at any time, callbacks included. Callbacks run
 * - on the thread that calls in: tarn_send_*() and tarn_input() run the output, receive and error
 *   callbacks before they return;
 * - on the library's worker thread, or inside tarn_update(): re-sent segments, acknowledgements and
 *   the check for silence;
 * so the callbacks of one session can run on two threads at once and must be thread-safe. No
 * session lock is held meanwhile. Feeding one session from two threads at once is the one thing
 * that the caller must not do: call tarn_input() for a session from one thread, or under a lock.
 *
 * Callbacks. Their int results are ignored. A callback may send, feed other sessions, change
 * callbacks and destroy any session, its own included. The worker serves all sessions: a callback
 * that blocks it holds up every re-send and acknowledgement of the process.
 *
 * Exceptions and memory. An exception from a callback passes through the call that the callback ran
 * in and leaves the library whole; on the library's own threads it ends the process. So does a
 * std::bad_alloc, which the library throws where an allocation fails; it throws nothing else.
 *
 * The process. After fork() the child may only exec. The library's threads, "tarn_thread" and
 * "tarn_io", block all signals, and all its descriptors are close-on-exec.
 *
 * When `user` may be freed. A callback may still be running, or about to run, on another thread
 * while it is replaced or while its session is destroyed. What `user` points to is safe to free
 * when tarn_destroy() has returned, every call that your own threads had inside the session has
 * returned, and the worker has finished what it was at: the level 4 log line "tarn %p conv: %u
 * destroyed" says so. Simplest: let it live as long as the process, or make `user` a number to look
 * up.
 *
 * Bytes. Data passed in is only borrowed: it may be reused as soon as the call returns. Data passed
 * to a callback is valid only until the callback returns, and may be changed by it.
 * A negative length counts as 0; a null pointer is accepted with length 0, where that is a length,
 * and refused with a log line otherwise.
 *
 * Time. Milliseconds of the wall clock, as an unsigned 32-bit number that wraps after 49.7 days.
 * Setting the clock back stalls timers by that much, those of sessions created afterwards too, and
 * raises TARN_ERROR_INACTIVE; setting it forward makes periodic work of the skipped time run at
 * once, period by period, and may raise it as well.
 *
 * Limits that follow from the design:
 * - A full send window sends and does not store. The message that meets a full window
 *   (tarn_config_send_window_size() segments unacknowledged) goes out once, is never re-sent, and
 *   raises TARN_ERROR_SEND_OVERFLOW. If that one datagram is lost, the peer waits for it for ever
 *   and delivers nothing that came after it. Who may send more at once than the window holds sets a
 *   profile, or sends with tarn_try_send_reliable(): see tarn/control.h and docs/guide.md.
 * - A message of more fragments than the window has room for overflows it, for the same reason.
 *   A message takes (length + mtu - 1) / mtu segments, at least 1.
 * - An empty reliable message can never be acknowledged: the receiver refuses it as too short, so
 *   it is re-sent for ever and everything after it waits for ever. Never send one.
 * - Acknowledgements ride along within the mtu, but for one corner: beside a payload that leaves 6
 *   or 7 bytes of it, all that are due do, which can make a datagram of up to 65 KiB more.
 * - Nothing on the wire is encrypted or authenticated.
 */
#ifndef TARN_TARN_H_
#define TARN_TARN_H_

#include <stdbool.h>

#if defined(__GNUC__)
#define TARN_API __attribute__((visibility("default")))
#else
#define TARN_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* What the error callback is told. */
typedef enum TarnError {
  /* A reliable segment met a full send window: sent once, not stored, never re-sent; the stream
   * stands still if that datagram is lost. You send faster than the peer acknowledges: set a
   * profile (tarn_set_profile() in tarn/control.h), so that messages wait for room, or use
   * tarn_try_send_reliable(), which refuses what there is no room for and says when there is. With
   * a queue this code means that it is full and the message was not taken; the stream goes on. */
  TARN_ERROR_SEND_OVERFLOW = 0,
  /* A segment that came early met a full receive buffer and was dropped; the peer re-sends it. */
  TARN_ERROR_RECV_REJECTED = 1,
  /* The peer said that it is leaving. The session goes on until it is destroyed. */
  TARN_ERROR_BYE = 2,
  /* Nothing was received or sent for longer than the active timeout. Raised again in every cycle
   * (every rtx timeout) until something happens or the session is destroyed. */
  TARN_ERROR_INACTIVE = 3,
  /* A received message is longer than TARN_OPTION_MAX_MESSAGE of tarn/control.h allows; raised only
   * where that is set. */
  TARN_ERROR_MESSAGE_TOO_LARGE = 4,
  TARN_ERROR_UNREACHABLE = 5 /* not raised yet */
} TarnError;

/* `data` is valid and writable until the callback returns; the result is ignored. */
typedef int (*TarnDataCallback)(char* data, int len, void* user);
typedef int (*TarnErrorCallback)(TarnError code, void* user);

/* `text` has no line end and is valid until the callback returns. */
typedef void (*TarnLogCallback)(const char* text);
typedef void (*TarnLogCallback2)(int level, const char* text);

/* ---- The library -------------------------------------------------------------------------- */

/* Stores the address of the version text, "1.3.1.20250319_", in `*version`. The text is constant
 * and must not be freed; every call gives the same address. A null `version` is ignored. */
TARN_API void tarn_version(const char** version);

/* Starts the worker thread ("tarn_thread"), on which all timed work of all sessions runs. Must come
 * before the first tarn_create(), tarn_check_update_ms() and tarn_update(), which abort the process
 * otherwise with the assertion "0L != px". If the system refuses the thread, logs at level 1, and
 * nothing timed happens; call it again to try again. Once the thread runs, further calls change
 * nothing. */
TARN_API void tarn_init(void);

/* Logs "tarn fini" and wakes the worker. The worker goes on, sessions stay as they are, nothing is
 * released: destroy sessions with tarn_destroy(). */
TARN_API void tarn_fini(void);

/* Sets the log threshold and the callback that gets the text of each message.
 * Level: 0 nothing (the default), 1 errors, 2 warnings, 3 lifecycle, 4 control traffic, 5 every
 * datagram; a message is passed on when its level is at most the threshold, cut to 1023 characters.
 * The callback runs on whatever thread logs, often concurrently; it should not block. It may call
 * the library, but a call that logs calls it again: guard against endless recursion. Null removes
 * it. The change itself is logged at level 3, "tarn log level %d", under the old threshold and to
 * the old callback. */
TARN_API void tarn_set_log_callback(int level, TarnLogCallback callback);

/* The same for a callback that also gets the level. Threshold: one for both. When both callbacks
 * are set, each message goes to the text-only one first, then to this one. */
TARN_API void tarn_set_log_callback2(int level, TarnLogCallback2 callback);

/* Settings of the process, stored unchecked. They may be changed at any time; "applies" says what
 * notices. */

/* Bytes of payload in one reliable segment; a longer message is split. Default 1400. The largest
 * datagram of reliable traffic is mtu + 14 bytes, acknowledgements aside. At most 65533 bytes are
 * used, whatever the value; with 0 every reliable message that is not empty is refused with a log
 * line at level 1. Applies to sessions created afterwards. */
TARN_API void tarn_config_mtu(unsigned int bytes);

/* Period, in milliseconds, of a session's cycle: pending acknowledgements go out and silence is
 * looked for. Default 50. Not the re-send period, which is fixed: 30 to 60 ms to the first re-send,
 * then every 120 ms. 0, or more than 2147483647, runs the cycle only once.
 * Applies to sessions created afterwards. */
TARN_API void tarn_config_rtx_timeout(unsigned int ms);

/* Milliseconds without activity after which TARN_ERROR_INACTIVE is raised. Default 5000. Activity
 * is any datagram received and any message sent by tarn_send_reliable() or tarn_send_unreliable();
 * acknowledgements on their own and tarn_send_unreliable_nocp() are none. So an application that
 * keeps sending never hears of a peer that is gone: let it keep a clock of what it received.
 * Applies at once. */
TARN_API void tarn_config_active_timeout(unsigned int ms);

/* Segments that a session keeps for re-sending until they are acknowledged. Default 32. Both ends
 * of a conversation should use the same number of segments for this and the receive window, and at
 * most 16383: sequence numbers have 16 bits, and the two windows together have to fit into half of
 * them, or an acknowledgement may release segments that have not arrived. Applies at once. */
TARN_API void tarn_config_send_window_size(unsigned int segments);

/* Segments that a session holds back because they came early. Default 32. Applies at once. */
TARN_API void tarn_config_recv_window_size(unsigned int segments);

/* True, the default: session calls read the session's stopped flag under its lock. False: calls
 * that need the lock for nothing else read it without, which saves what the lock costs. Either way
 * the calls stay safe on any thread. */
TARN_API void tarn_config_thread_safe(bool on);

/* Milliseconds until the worker's next timer is due, 0 to 10000. */
TARN_API int tarn_check_update_ms(void);

/* Runs the due timers now, on the calling thread. Never needed: the worker does it. Returns at once
 * when the worker is in the middle of a turn, and when called from inside a callback of one. The
 * worker rests meanwhile: a callback that this call runs must not wait for it. One may leave it by
 * an exception or a cancellation; the worker then runs the rest at once. */
TARN_API void tarn_update(void);

/* ---- Sessions ----------------------------------------------------------------------------- */

/* A new session with conversation id 0 and no callbacks. Returns its handle, owned by the library
 * until tarn_destroy(); null only if the session could not be registered. Needs tarn_init(). */
TARN_API void* tarn_create(void);

/* tarn_wait_destroy() with no waiting. */
TARN_API int tarn_destroy(void* handle);

/* Ends a session. First waits, on the calling thread and in steps of at most 100 ms, until
 * everything reliable is acknowledged or `wait_ms` milliseconds are over; the session works on
 * meanwhile. Then every call on the handle does nothing, and the worker frees the session soon
 * after (setters still store until then). The peer is not told: it notices by its own active
 * timeout. 0, or -1 for a bad handle. May be called inside a callback; with a wait, on the worker,
 * it holds up all sessions. */
TARN_API int tarn_wait_destroy(void* handle, unsigned int wait_ms);

/* Where the session's datagrams go, whole and one per call: send `data` to the peer. Without this
 * callback datagrams are dropped with a log line. A callback and its `user` are always seen as a
 * pair. Null removes the callback. */
TARN_API void tarn_set_output_callback(void* handle, TarnDataCallback callback, void* user);

/* Gets each reliable message, whole, once and in order. Runs inside tarn_input(); `data` is a copy,
 * aligned for anything. */
TARN_API void tarn_set_recv_reliable_callback(void* handle, TarnDataCallback callback, void* user);

/* Gets each unreliable message as it arrives; it may be missing, repeated or out of order. Runs
 * inside tarn_input(), with `data` pointing into the datagram. */
TARN_API void tarn_set_recv_unreliable_callback(void* handle, TarnDataCallback callback,
                                                void* user);

/* Gets the TarnError codes: 0 inside tarn_send_reliable(), 1 and 2 inside tarn_input(), 3 on the
 * worker or inside tarn_update(). */
TARN_API void tarn_set_error_callback(void* handle, TarnErrorCallback callback, void* user);

/* Sets the conversation id. While it is not 0 every datagram carries it. Both ends use the same
 * one: a session whose id is 0 takes over the first one that it receives; a differing one is
 * logged and otherwise ignored. To tell conversations apart, use tarn_read_packet_conv() and route
 * the datagram to the right session. */
TARN_API void tarn_set_conv(void* handle, unsigned int conv);

/* The conversation id; 0 when there is none, or for a bad handle. */
TARN_API unsigned int tarn_get_conv(void* handle);

/* Takes one received datagram of `len` bytes, on the calling thread, and runs the receive and error
 * callbacks that follow from it. Any bytes are safe: what does not fit the format is logged and
 * dropped. Counts as activity even when it is refused. One thread at a time per session. */
TARN_API void tarn_input(void* handle, char* data, int len);

/* Sends a message reliably: whole, once, in the order of the calls. It is split into segments of at
 * most mtu bytes, each goes out at once through the output callback and is kept until the peer
 * acknowledges it. Never blocks; see the limits above for a full window and for empty messages.
 * Not for many messages in a loop: once the window (32 segments unless set) is full, each further
 * one is sent once, without a second try. For those set a profile before, or use
 * tarn_try_send_reliable(); both are in tarn/control.h. */
TARN_API void tarn_send_reliable(void* handle, char* data, int len);

/* Sends a message once, in one datagram of up to len + 12 bytes, and acknowledgements where they
 * fit. Never split: keep len at or below 65535, and below the path's limit. The receiver drops an
 * empty one. */
TARN_API void tarn_send_unreliable(void* handle, char* data, int len);

/* The same without copying. `buf` holds len + 12 bytes: the library writes its prefix into the
 * first 12, the message stands in the `len` after them. `len` must be 6 or more: less, negative or
 * not, aborts the process. The datagram carries the conversation id even when it is 0, no
 * acknowledgements, and does not count as activity. `buf` is the caller's again when the call
 * returns. */
TARN_API void tarn_send_unreliable_nocp(void* handle, char* buf, int len);

/* Kept for old callers; log "kcp not surported" at level 1 and do nothing. */
TARN_API void tarn_send_kcp(void* handle, char* data, int len);
TARN_API void tarn_set_recv_kcp_callback(void* handle, TarnDataCallback callback, void* user);

/* ---- Datagrams without a session ---------------------------------------------------------- */

/* Looks at a datagram's header and first segment. 0: a first reliable message without conversation
 * id, that is the start of a conversation; 1: any other datagram of this protocol; -1: none. */
TARN_API int tarn_check_packet(char* data, int len);

/* The conversation id that a datagram carries; 0 when it carries none; 0xFFFFFFFF when it is not a
 * datagram of this protocol. */
TARN_API unsigned int tarn_read_packet_conv(char* data, int len);

#ifdef __cplusplus
}
#endif

#endif /* TARN_TARN_H_ */
