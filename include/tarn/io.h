/*
 * Tarn: sockets and listeners, for those who want the library to own them.
 *
 * An I/O handle is one non-blocking socket, UDP or TCP, that the library's I/O thread watches. It
 * either serves a session (tarn_attach_io), so that datagrams flow between socket and session, or
 * the application, through callbacks and the calls that read and write.
 *
 *   void* io = tarn_create_udp_io("192.0.2.7", 9000, 0);
 *   tarn_attach_io(session, io);            input, output and re-sends now use the socket
 *   ...
 *   tarn_destroy(session);
 *   tarn_destroy_io(io);
 *
 * The I/O thread starts with the first call that needs it: a callback setter, tarn_attach_io() or
 * tarn_destroy_io(). Every callback below runs on it, one at a time, unless said otherwise, so a
 * callback that blocks holds up every socket of the library. Callbacks may call anything.
 *
 * Handles. An I/O handle stays good for 500 ms after tarn_destroy_io(), so that calls under way on
 * other threads find it; its socket is closed by then and they fail. After that, and for any other
 * value, a call logs one line at level 2, does nothing and returns the value given below.
 * tarn_init() must have been called before tarn_destroy_io(), since the worker thread does the
 * release: the process aborts otherwise, with the assertion "0L != px".
 *
 * Addresses are numeric texts. The family of a new socket follows the host, which is asked for a
 * route each time: IPv4 where it is reachable; otherwise IPv6, where IPv4 addresses are reached
 * through NAT64 (64:ff9b::/96). An IPv4 socket refuses IPv6 addresses. A UDP listener cannot answer
 * a peer whose IPv6 address takes more than 15 characters as a text, as most global ones do: its
 * callback gets a handle whose calls fail.
 *
 * All descriptors are close-on-exec. Exceptions, fork() and signals: see tarn.h.
 */
#ifndef TARN_IO_H_
#define TARN_IO_H_

#include <tarn/tarn.h>

#ifdef __cplusplus
extern "C" {
#endif

/* `arg` is what was passed with the callback. */
typedef void (*TarnIoCallback)(void* arg);
/* `error` is 0, or the errno of an error that came before the callback was set. */
typedef void (*TarnIoErrorCallback)(int error, void* arg);
/* `io` is a new handle, the receiver's to destroy, not yet watched. */
typedef void (*TarnNewConnCallback)(void* io, void* arg);

/* ---- I/O handles -------------------------------------------------------------------------- */

/* A UDP socket connected to `ip`, bound to `local_port` unless that is 0. Never null; failures to
 * bind or connect are logged or show in later calls. */
TARN_API void* tarn_create_udp_io(const char* ip, unsigned short port, unsigned short local_port);

/* A TCP socket that begins to connect to `ip`. Never null. Completion shows as a writeable event,
 * failure as an error event. */
TARN_API void* tarn_create_tcp_io(const char* ip, unsigned short port);

/* Takes over a UDP descriptor of the application's, which tarn_destroy_io() closes, and makes it
 * non-blocking. Never null. */
TARN_API void* tarn_create_io_from_fd(int fd);

/* Makes a UDP handle serve a session: each datagram that arrives, cut to 1500 bytes, is passed to
 * tarn_input() on the I/O thread, one per event; the session's datagrams are sent on the socket, on
 * whatever thread makes them, one send each, dropped with a log line where the socket would block.
 * Replaces the session's output callback and the handle's readable callback. A session may have
 * several handles: all feed it, the last one attached carries its output. */
TARN_API void tarn_attach_io(void* session, void* io);

/* Stops watching, waiting for the I/O thread unless called on it, closes the socket and releases
 * the handle 500 ms later. A session attached to it goes on without output. Again: ignored. */
TARN_API void tarn_destroy_io(void* io);

/* Called when there is something to read. TCP: the library has moved it into the handle's buffer;
 * take it with tarn_peek() and tarn_consume() from inside the callback, or later. At the end of the
 * stream it is called once with nothing new. UDP: call tarn_read(). If the event came before the
 * callback was set, it is called at once, on the calling thread. */
TARN_API void tarn_set_readable_callback(void* io, TarnIoCallback callback, void* arg);

/* Called once when the socket can be written to. Set it again for another notification, but not
 * from inside the callback: that is undone when it returns. */
TARN_API void tarn_set_writeable_callback(void* io, TarnIoCallback callback, void* arg);

/* Called when the socket reports an error or the peer has hung up, again and again until the handle
 * is destroyed. */
TARN_API void tarn_set_io_error_callback(void* io, TarnIoErrorCallback callback, void* arg);

/* UDP: size of the next datagram; TCP: bytes in the buffer. 0 for a bad handle. */
TARN_API int tarn_peek_size(void* io);

/* TCP only: the first of tarn_peek_size() bytes. Valid until the next tarn_peek() or tarn_consume()
 * on the handle, also while more arrives. A UDP handle aborts the process. Null for a bad handle.
 */
TARN_API char* tarn_peek(void* io);

/* TCP only: drops `len` bytes from the buffer. More than it holds, or a UDP handle, aborts. */
TARN_API void tarn_consume(void* io, int len);

/* UDP only: receives one datagram, cut to `len` bytes. Its size, or -1. A TCP handle aborts. */
TARN_API int tarn_read(void* io, char* buf, int len);

/* Sends `len` bytes: one datagram, or what the TCP socket takes of them. The number sent, or -1
 * with errno set, EAGAIN where the socket would block. */
TARN_API int tarn_write(void* io, const char* data, int len);

/* ---- Listeners ---------------------------------------------------------------------------- */

/* Listen on a port, all addresses. `callback` gets an I/O handle for each new peer, on the I/O
 * thread; a listener alone does not start that thread, so peers wait until something does.
 *
 * UDP: a peer's first datagram is consumed and delivered to nobody; the peer sends again. Each peer
 * gets a socket of its own on the same port; one that begins with several datagrams at once may get
 * several handles, so begin with one and wait for an answer. The call sleeps for 100 ms, and may
 * wait for the I/O thread besides, so hold no lock that a callback may want. Null when the port
 * cannot be bound; a port that another UDP listener of this kind holds can be. TCP: never null; a
 * listener on a port that is taken never reports anybody. When a connection cannot be accepted, the
 * callback gets a handle whose calls fail. */
TARN_API void* tarn_start_listen_udp(unsigned short port, TarnNewConnCallback callback, void* arg);
TARN_API void* tarn_start_listen_tcp(unsigned short port, TarnNewConnCallback callback, void* arg);

/* Stops and releases a listener; its callback does not run any more when this has returned, unless
 * it is the caller. Waits for the I/O thread, so hold no lock that a callback, a log callback
 * included, may want. Null is ignored. */
TARN_API void tarn_stop_listen(void* listener);

#ifdef __cplusplus
}
#endif

#endif /* TARN_IO_H_ */
