// TarnWakeUp: interrupts the I/O thread's wait.
#ifndef TARN_TARN_IO_TARN_WAKE_UP_H_
#define TARN_TARN_IO_TARN_WAKE_UP_H_

#include "oxutils/mutex.h"

// A loopback TCP connection whose read end the poller watches. open, init, fini and on_read belong
// to the I/O thread, and to whoever starts it before that; wakeup may be called on any thread.
// Construction and destruction touch no descriptor.
class TarnWakeUp {
 public:
  // Opens and logs what went wrong. False when a step before the last one fails; the last one is
  // accept(), whose failure leaves the pair without its read end. What has been opened by then
  // stays open.
  bool init() OX_EXCLUDES(lock_);
  // Connects the pair and watches the read end, unless it is there already, as after the thread for
  // it has been refused. Gives up what an earlier attempt left open, so that a shortage of
  // descriptors can be waited out. Null, or what to log: the caller does that with no lock held.
  const char* open() OX_EXCLUDES(lock_);
  // Logs what open() has returned.
  static void log(const char* failure);
  // Takes one byte; a broken pair is built anew.
  void on_read();
  // Sends one byte, without waiting for room: bytes that are under way wake the thread as well.
  // Returns what send() returned.
  int wakeup() OX_EXCLUDES(lock_);
  bool is_open() const { return recv_fd_ >= 0; }
  // Stops watching and closes both ends.
  void fini() OX_EXCLUDES(lock_);

 private:
  // Null, or what has failed.
  static const char* connect_pair(int listener, int sender, int& receiver);
  void close_sender() OX_EXCLUDES(lock_);

  int recv_fd_ = -1;
  int failed_listener_ = -1;
  oxutils::mutex lock_;  // against the sender's being closed under a wakeup
  int send_fd_ OX_GUARDED_BY(lock_) = -1;
};

#endif  // TARN_TARN_IO_TARN_WAKE_UP_H_
