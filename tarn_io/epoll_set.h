// EpollSet: descriptors that the kernel watches from one wait to the next.
#ifndef TARN_TARN_IO_EPOLL_SET_H_
#define TARN_TARN_IO_EPOLL_SET_H_

#include <stdint.h>

#include <vector>

#include "tarn_io/ready_descriptor.h"

// A wait costs what is ready, however much is watched. Owned by TarnPoller, whose lock is held for
// everything but wait(). A set may go on telling of a descriptor that was closed or replaced while
// in it, and the next watch() of that fails: only a new set helps.
class EpollSet {
 public:
  EpollSet() = default;
  ~EpollSet() { close(); }
  EpollSet(const EpollSet&) = delete;
  EpollSet& operator=(const EpollSet&) = delete;

  // An empty set. If the system has none to give it stays closed, and has failed.
  void open();
  void close();
  bool is_open() const { return fd_ >= 0; }
  // Whether something was refused since open() was called last, also if the set is closed by now.
  bool has_failed() const { return has_failed_; }
  // A wait() on the set has failed.
  void note_failure() { has_failed_ = true; }
  // What wait() waits on, until close().
  int fd() const { return fd_; }

  // Watches for these events of poll() from now on, or not at all if there are none.
  void watch(int fd, short events, uint32_t generation);

  // Waits for at most `timeout` milliseconds, then appends what is ready in ascending order of
  // descriptors: all of it, or a thousand of more.
  static WaitOutcome wait(int set, int timeout, std::vector<ReadyDescriptor>& ready);

 private:
  bool control(int operation, int fd, short events, uint32_t generation);

  int fd_ = -1;
  bool has_failed_ = false;
  std::vector<bool> has_;  // by descriptor, up to the highest that was watched
};

#endif  // TARN_TARN_IO_EPOLL_SET_H_
