// EpollSet: descriptors that the kernel watches from one wait to the next.
#ifndef TARN_TARN_IO_EPOLL_SET_H_
#define TARN_TARN_IO_EPOLL_SET_H_

#include <stdint.h>

// A watched descriptor that something has happened to.
struct ReadyDescriptor {
  int fd;
  short revents;        // of poll()
  uint32_t generation;  // of the watch
};

// A wait costs what is ready, however much is watched. Owned by TarnPoller, whose lock is held for
// everything but wait(). A set may go on telling of a descriptor that was closed or replaced while
// in it, and the next change of that is refused: only a new set helps. Where the system has no such
// sets it is never open.
class EpollSet {
 public:
  EpollSet() = default;
  ~EpollSet() { close(); }
  EpollSet(const EpollSet&) = delete;
  EpollSet& operator=(const EpollSet&) = delete;

  // An empty set, if there is one to be had.
  void open();
  void close();
  bool is_open() const { return fd_ >= 0; }
  // What wait() waits on, until close().
  int fd() const { return fd_; }

  // Watches for the events `to` of poll() instead of `from`; 0 stands for none. False when that is
  // refused. Requires: the set is open.
  bool change(int fd, short from, short to, uint32_t generation);

  // More have to wait for the next time, and come first then.
  static constexpr int kMostAtOnce = 1000;
  using Ready = ReadyDescriptor[kMostAtOnce];

  // Waits for at most `timeout` milliseconds; what is ready comes in ascending order of
  // descriptors. Returns how many they are, or -1 as epoll_wait() does.
  static int wait(int set, int timeout, Ready& ready);

 private:
  int fd_ = -1;
};

#endif  // TARN_TARN_IO_EPOLL_SET_H_
