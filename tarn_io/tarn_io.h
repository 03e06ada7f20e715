// TarnIo: one non-blocking socket that the I/O thread watches.
#ifndef TARN_TARN_IO_TARN_IO_H_
#define TARN_TARN_IO_TARN_IO_H_

#include <stdint.h>

#include "oxutils/mutex.h"
#include "oxutils/relaxed.h"
#include "oxutils/smart_ptr/enable_shared_from_this.h"
#include "oxutils/smart_ptr/shared_ptr.h"
#include "src/callback_slot.h"
#include "tarn_io/tarn_socket.h"
#include "tarn_io/tcp_buffer.h"

class TarnSession;

// Turns the poller's events into the application's callbacks, remembers an event that came before
// its callback, and can serve a session. Owned by the registry of handles from creation to 500 ms
// after it was closed, and by whoever is calling out on its behalf.
//
// Threads: watch_*, unwatch_* and trigger_* run on the I/O thread; everything else on any. lock_
// guards callbacks and remembered events, socket_lock_ the socket, its buffer and whose datagrams
// it receives; neither is held while a callback runs. The destructor closes nothing.
//
// While a datagram socket is read, its error slot takes pending errors out of the way, unless the
// application watches it; a send or receive fails with them all the same. The end of a stream is
// told to the readable callback, and the hang-up that follows to nobody.
class TarnIo : public oxutils::enable_shared_from_this<TarnIo> {
 public:
  using Callback = void (*)(void*);
  using ErrorCallback = void (*)(int, void*);

  // Makes the descriptor non-blocking.
  explicit TarnIo(TarnSocket s);
  TarnIo(const TarnIo&) = delete;
  TarnIo& operator=(const TarnIo&) = delete;

  // Store the callback; one that is not null gets the event remembered for it at once, on the
  // calling thread.
  void set_readable_callback(Callback callback, void* arg) OX_EXCLUDES(lock_);
  void set_writeable_callback(Callback callback, void* arg) OX_EXCLUDES(lock_);
  void set_error_callback(ErrorCallback callback, void* arg) OX_EXCLUDES(lock_);

  void watch_read();
  void watch_write();
  void watch_error();
  void unwatch_read();
  void unwatch_write();
  void unwatch_error();

  // Has the I/O thread call one of these; a registered object lives until it has.
  void run_on_io_thread(void (TarnIo::*method)());

  // The poller's events.
  void trigger_read() OX_EXCLUDES(lock_, socket_lock_);
  void trigger_write() OX_EXCLUDES(lock_);
  void trigger_error() OX_EXCLUDES(lock_, socket_lock_);

  // Serves the session of this handle from now on. False for a bad handle.
  bool attach(void* session) OX_EXCLUDES(lock_, socket_lock_);
  // Stops watching and closes the socket; later calls do nothing. Not while a lock is held that a
  // callback may want, since it waits for the I/O thread.
  void close() OX_EXCLUDES(socket_lock_);
  // True for the first caller alone.
  bool begin_destroy() OX_EXCLUDES(lock_);

  // An output callback that sends on the TarnIo given as `user`.
  static int tarn_output(char* data, int len, void* user);
  // A readable callback that passes one datagram to the session of the TarnIo given as `io`.
  static void on_tarn_input(void* io);

  // Of the object's own buffer, which nothing fills.
  int readable_len() const { return static_cast<int>(buffer_.readable_bytes()); }
  char* peek() { return buffer_.peek(); }
  int read(char* buf, int len) OX_EXCLUDES(socket_lock_);
  int write(const char* data, int len) OX_EXCLUDES(socket_lock_);
  // Unsynchronised; for whoever owns the object alone.
  TarnSocket& get_sock() OX_NO_TSA { return sock_; }

  // Tells this object from every other one that ever was.
  void* number() const { return number_; }

  // The socket's datagram or buffer, as tarn_peek_size(), tarn_peek() and tarn_consume() show it.
  int peek_size() OX_EXCLUDES(socket_lock_);
  char* peek_data() OX_EXCLUDES(socket_lock_);
  void consume(int len) OX_EXCLUDES(socket_lock_);

 private:
  using ReadableCallback = CallbackSlot<Callback>;
  using WriteableCallbackPair = CallbackSlot<Callback>::Pair;
  using ErrorCallbackPair = CallbackSlot<ErrorCallback>::Pair;

  // An output callback whose `user` is the number of an object that may be gone.
  static int output_numbered(char* data, int len, void* number);
  static void call(oxutils::shared_ptr<TarnIo> io, void (TarnIo::*method)());
  ReadableCallback::Pair remember_readable() OX_EXCLUDES(lock_);
  void trigger_stream() OX_EXCLUDES(lock_, socket_lock_);
  // Drains the socket into its buffer. False at the end of the stream.
  bool read_stream() OX_EXCLUDES(socket_lock_);
  // Gives the error slot to whom it belongs now.
  void choose_error_watch();
  void keep_pending_error() OX_EXCLUDES(socket_lock_);
  bool has_error() const OX_EXCLUDES(socket_lock_);
  // A session, as attached; the handle may become another one's.
  struct Attached {
    void* session = nullptr;
    uint64_t number = 0;
  };
  // Passes a datagram to the session, if that still lives.
  static void feed(const Attached& attached, char* datagram, int len);
  // After a read that has failed, apart from the busy path.
  __attribute__((noinline)) int fail_to_read(char* buf, int len) OX_REQUIRES(socket_lock_);
  TarnSocket release_socket() OX_EXCLUDES(socket_lock_);
  int fd() const OX_EXCLUDES(socket_lock_);
  int watchable_fd() const OX_EXCLUDES(lock_, socket_lock_);

  void* const number_;

  mutable oxutils::mutex lock_;
  ReadableCallback readable_cb_;  // written under lock_; while there is one, nothing is pending
  WriteableCallbackPair writeable_cb_ OX_GUARDED_BY(lock_) = {};
  ErrorCallbackPair error_cb_ OX_GUARDED_BY(lock_) = {};
  bool readable_pending_ OX_GUARDED_BY(lock_) = false;
  bool writeable_pending_ OX_GUARDED_BY(lock_) = false;
  int error_pending_ OX_GUARDED_BY(lock_) = 0;  // errno
  bool destroyed_ OX_GUARDED_BY(lock_) = false;

  mutable oxutils::mutex socket_lock_;
  TarnSocket sock_ OX_GUARDED_BY(socket_lock_);
  Attached attached_ OX_GUARDED_BY(socket_lock_);
  bool datagram_first_ OX_GUARDED_BY(socket_lock_) = false;  // before the next error, in read()
  const bool is_stream_;

  // Written on the I/O thread.
  oxutils::relaxed<bool> watches_read_{false};
  oxutils::relaxed<bool> watches_error_{false};  // for the application
  oxutils::relaxed<bool> at_end_{false};         // of the stream
  oxutils::relaxed<bool> told_of_end_{false};    // also by who sets the callback

  TcpBuffer buffer_;
};

#endif  // TARN_TARN_IO_TARN_IO_H_
