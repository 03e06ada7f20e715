/*
 * Tarn: what a session can do beyond tarn.h, for those who ask for it.
 *
 * As tarn.h has it, a session sends whatever it is given: a message that meets a full send window
 * goes out once and is never re-sent. With the calls here it tells when there is room, keeps what
 * has to wait, goes along with a slow reader and a small peer, and counts what it does. The peer
 * need not know: everything is the same on the wire, and a session on which nothing here has been
 * called behaves as ever.
 *
 *   tarn_set_profile(session, TARN_PROFILE_BALANCED);
 *   tarn_set_writable_callback(session, send_more, &app);
 *   send_more(session, &app);       sends while tarn_try_send_reliable() is 0; after -EAGAIN the
 *                                   callback goes on with the message that was refused
 *
 * examples/send_file.c and examples/slow_reader.c are whole programs, docs/guide.md says what each
 * option costs and when it helps.
 *
 * Results are 0 or a negative errno value: -EBADF for a bad handle (with a line at level 2),
 * -EINVAL for a bad argument or value, -ESHUTDOWN when the session has ended. All calls may be made
 * from any thread and from inside every callback.
 */
#ifndef TARN_CONTROL_H_
#define TARN_CONTROL_H_

#include <stddef.h>
#include <stdint.h>

#include "tarn/tarn.h"

/* Any number may come in place of an option or a profile, and is looked at. */
#ifdef __cplusplus
#define TARN_ANY_INT : int
extern "C" {
#else
#define TARN_ANY_INT
#endif

/* Options of one session. Durations are in milliseconds; a value outside of the range that is named
 * gives -EINVAL. They may be changed at any time and apply at once, but for the mtu.
 *
 * A session with any of these set takes less from its peer on trust: a received number more than
 * 8192 ahead of the last one in order is refused, and so is the acknowledgement of what is not
 * outstanding. */
typedef enum TarnOption TARN_ANY_INT {
  /* Bytes of payload in one reliable segment, 1 to 65533; as tarn_config_mtu(). Before the first
   * message is sent only, else -EBUSY. Larger ones cost less for each byte, as long as a datagram,
   * 14 bytes longer, fits into a packet of the path. Below 6 nothing is ever acknowledged. */
  TARN_OPTION_MTU = 1,
  /* As tarn_config_active_timeout(), 0 to 4294967295. */
  TARN_OPTION_ACTIVE_TIMEOUT_MS,
  /* Segments, 1 to 4096; as tarn_config_send_window_size() and tarn_config_recv_window_size(). A
   * window that shrinks below what is outstanding loses nothing: there is no room until it fits.
   * What may be under way until an acknowledgement comes is the smaller of the sender's window and
   * what the peer keeps, so long or fast paths need larger ones; they cost up to so many segments
   * of memory, and what is more than the path holds is lost and sent again. */
  TARN_OPTION_SEND_WINDOW,
  TARN_OPTION_RECV_WINDOW,

  /* Bytes of messages that may wait for room in the send window, 0 (the default: none) to 2^40.
   * They leave in order as the peer acknowledges, and cost as much memory. With a queue
   * tarn_send_reliable() goes through it, too: TARN_ERROR_SEND_OVERFLOW then means that the message
   * was not taken, and the stream goes on. */
  TARN_OPTION_SEND_QUEUE,
  /* Segments, 0 to 4096: no new number further than this ahead of the oldest unacknowledged one. A
   * peer keeps as many early segments as its receive window has, 32 unless set, and refuses what
   * lies further ahead, so that it has to be sent again. 0, the default: no limit; -1: learned,
   * from 32 up, as far as the peer has shown to keep; who knows the peer's window names it. */
  TARN_OPTION_PEER_WINDOW,
  /* Bytes of one received message, 0 (the default: no limit) to 2^40. One that grows beyond it
   * raises TARN_ERROR_MESSAGE_TOO_LARGE once; reliable segments from then on are dropped
   * unacknowledged, the rest works. Without a limit a peer can make a session hold any amount. */
  TARN_OPTION_MAX_MESSAGE,
  /* A datagram after so much silence of our own, 0 (the default: none) to 2147483647; never before
   * something was received. It keeps mappings on the path open and tells a peer with a timeout that
   * we live; it is no activity of ours. */
  TARN_OPTION_KEEP_ALIVE_MS,
  /* TARN_ERROR_INACTIVE, once, when nothing has been received for so long, whatever we send; 0 (the
   * default: none) to 2147483647. Once for each silence. */
  TARN_OPTION_PEER_TIMEOUT_MS,
  /* 1: datagrams without exactly this session's conversation id are dropped and are no activity; an
   * id of 0 takes the first one over. 0, the default: other ids are only logged. Costs nothing;
   * helps against strays and late datagrams of another conversation, not against who can read. */
  TARN_OPTION_STRICT_CONV,

  /* These take their default value only. */
  TARN_OPTION_ACK_DELAY_MS, /* -1 */
  TARN_OPTION_ACK_EVERY,    /* 0 */
  TARN_OPTION_RESEND,       /* TARN_RESEND_ROTATION */
  TARN_OPTION_CARRY,        /* 0 */
  TARN_OPTION_PACING,       /* TARN_PACING_NONE */
  TARN_OPTION_COALESCE_MS   /* 0 */
} TarnOption;

typedef enum TarnResend { TARN_RESEND_ROTATION = 0, TARN_RESEND_ADAPTIVE = 1 } TarnResend;
typedef enum TarnPacing { TARN_PACING_NONE = 0, TARN_PACING_RATE = 1 } TarnPacing;

/* Sets of options for a purpose. BALANCED and REALTIME: a queue of 1 MiB and windows of 256
 * segments; BULK: 8 MiB and 1024. All three: the peer's window learned, messages of up to 64 MiB,
 * and the active timeout as the peer timeout. */
typedef enum TarnProfile TARN_ANY_INT {
  TARN_PROFILE_PLAIN = 0, /* nothing of this header */
  TARN_PROFILE_BALANCED = 1,
  TARN_PROFILE_REALTIME = 2,
  TARN_PROFILE_BULK = 3
} TarnProfile;

/* An option that was never set reads as its tarn_config_ value, ACK_DELAY_MS as -1, every other as
 * 0. -EINVAL also for an option that there is not, and for a null `value`. */
TARN_API int tarn_set_option(void* session, TarnOption option, long long value);
TARN_API int tarn_get_option(void* session, TarnOption option, long long* value);

/* Sets the options of a profile. PLAIN after another one: -EBUSY once anything was sent. */
TARN_API int tarn_set_profile(void* session, TarnProfile profile);

/* Sends one message of `len` bytes, all of it or nothing. 0: it will be delivered, in order, as
 * long as both ends live, and nobody overflows a session without a queue by tarn_send_reliable().
 * It and tarn_send_reliable() take their places in the order of the calls. -EAGAIN: there is no
 * room now; nothing was sent, and the writable callback will run once there is. -EMSGSIZE: longer
 * than the send window times the mtu and the send queue together: never. -EINVAL: empty, or null.
 */
TARN_API int tarn_try_send_reliable(void* session, const void* data, size_t len);

/* The longest message that would be taken now. 0 for an ended session and, with a line at level 2,
 * for a bad handle. */
TARN_API size_t tarn_send_room(void* session);

/* Runs once after each -EAGAIN or several of them, with no lock held, when half of what can be
 * outstanding is free and the smallest refused message fits: on the thread whose tarn_input()
 * brought the acknowledgement, or that changed an option, or that is at the queue just then. On
 * another thread it may run before the refused call has returned. Those of one session do not
 * overlap. Null removes it; one that is set while somebody waits runs, if there is room, before
 * this returns. */
typedef void (*TarnWritableCallback)(void* session, void* user);
TARN_API int tarn_set_writable_callback(void* session, TarnWritableCallback callback, void* user);

/* Not 0: nothing reliable is delivered any more, but what is being delivered on another thread;
 * unreliable messages are. Up to the receive window of segments are kept and acknowledged, more are
 * refused (TARN_ERROR_RECV_REJECTED), so that a sender with a limit slows down and nothing is lost;
 * it sends the refused ones again every 120 ms.
 * 0: delivers, in order, what has come meanwhile, on the calling thread or, if one is delivering
 * just now, on that. */
TARN_API int tarn_pause_receive(void* session, int on);

/* What a session has done since the first call of this header on it, and how it stands. Each
 * counter is an event that a caller can see. */
typedef struct TarnStats {
  uint64_t messages_sent, message_bytes_sent;           /* reliable, accepted */
  uint64_t messages_delivered, message_bytes_delivered; /* reliable, handed to the callback */
  uint64_t messages_refused;                            /* by a full window or queue */
  uint64_t unreliable_sent, unreliable_delivered;
  uint64_t segments_sent, segments_resent, segments_carried; /* reliable: first times, again, riding
                                                                along */
  uint64_t segments_received, segments_repeated, segments_rejected;
  uint64_t datagrams_sent, datagram_bytes_sent, datagrams_received, datagram_bytes_received;
  uint32_t outstanding_segments, outstanding_bytes; /* sent, not acknowledged */
  uint32_t queued_messages, queued_bytes, buffered_segments;
  uint32_t oldest_outstanding_ms, since_received_ms;
  uint32_t rtt_us, rtt_min_us; /* with what the peer waits before it acknowledges; 0: not known */
  uint32_t loss_ppm;           /* as measured by the sender; 0: not known */
  uint64_t rate_bytes_per_second; /* what pacing allows; 0: no limit */
} TarnStats;

/* Fills the first `size` bytes of `stats`; what lies beyond this version's struct becomes 0.
 * -EINVAL if `stats` is null or `size` 0. */
TARN_API int tarn_get_stats(void* session, TarnStats* stats, size_t size);

#undef TARN_ANY_INT

#ifdef __cplusplus
}
#endif

#endif /* TARN_CONTROL_H_ */
