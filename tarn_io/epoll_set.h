// EpollSet: descriptors that the kernel watches from one wait to the next.
#ifndef TARN_TARN_IO_EPOLL_SET_H_
#define TARN_TARN_IO_EPOLL_SET_H_

#include <stdint.h>

#include <vector>

// A watched descriptor that something has happened to.
struct ReadyDescriptor {
  int fd;
  short revents;        // of poll()
  uint32_t generation;  // of the watch
};

// A wait costs what is ready, however much is watched. Owned by TarnPoller, whose lock is held for
// everything but wait(). Of a descriptor that is closed or replaced before it is removed the set
// may go on telling, and change() and remove() fail: only a new set helps.
class EpollSet {
 public:
  EpollSet() = default;
  ~EpollSet() { close(); }
  EpollSet(const EpollSet&) = delete;
  EpollSet& operator=(const EpollSet&) = delete;

  // An empty set. False when the system has none to give.
  bool open();
  void close();
  bool is_open() const { return fd_ >= 0; }
  // What wait() waits on, until close().
  int fd() const { return fd_; }

  // Watch for these events of poll(). False when the system refuses.
  bool add(int fd, short events, uint32_t generation);
  bool change(int fd, short events, uint32_t generation);
  bool remove(int fd);

  // Waits for at most `timeout` milliseconds, then appends what is ready in ascending order of
  // descriptors: all of it, or a thousand of more. False when it cannot wait; an interruption is
  // none.
  static bool wait(int set, int timeout, std::vector<ReadyDescriptor>& ready);

 private:
  bool control(int operation, int fd, short events, uint32_t generation);

  int fd_ = -1;
};

#endif  // TARN_TARN_IO_EPOLL_SET_H_
