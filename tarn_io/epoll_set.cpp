#include "tarn_io/epoll_set.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>

#ifdef __linux__

#include <sys/epoll.h>

namespace {

// The rest comes first in the next wait.
constexpr int kMostAtOnce = 1000;

static_assert(EPOLLIN == POLLIN && EPOLLPRI == POLLPRI && EPOLLOUT == POLLOUT &&
                  EPOLLERR == POLLERR && EPOLLHUP == POLLHUP,
              "events are passed on as they are");

uint64_t tag(int fd, uint32_t generation) {
  return (uint64_t{generation} << 32) | static_cast<uint32_t>(fd);
}

ReadyDescriptor ready_descriptor(const epoll_event& event) {
  return {static_cast<int>(static_cast<uint32_t>(event.data.u64)), static_cast<short>(event.events),
          static_cast<uint32_t>(event.data.u64 >> 32)};
}

}  // namespace

bool EpollSet::open() {
  close();
  fd_ = epoll_create1(EPOLL_CLOEXEC);
  return is_open();
}

bool EpollSet::control(int operation, int fd, short events, uint32_t generation) {
  epoll_event event = {};
  event.events = static_cast<uint32_t>(events);
  event.data.u64 = tag(fd, generation);
  return epoll_ctl(fd_, operation, fd, &event) == 0;
}

bool EpollSet::add(int fd, short events, uint32_t generation) {
  return control(EPOLL_CTL_ADD, fd, events, generation);
}

bool EpollSet::change(int fd, short events, uint32_t generation) {
  return control(EPOLL_CTL_MOD, fd, events, generation);
}

bool EpollSet::remove(int fd) { return control(EPOLL_CTL_DEL, fd, 0, 0); }

bool EpollSet::wait(int set, int timeout, std::vector<ReadyDescriptor>& ready) {
  epoll_event events[kMostAtOnce];
  const int count = epoll_wait(set, events, kMostAtOnce, timeout);
  if (count < 0) return errno == EINTR;
  for (int i = 0; i < count; ++i) ready.push_back(ready_descriptor(events[i]));
  std::sort(ready.begin(), ready.end(),
            [](const ReadyDescriptor& a, const ReadyDescriptor& b) { return a.fd < b.fd; });
  return true;
}

#else  // every wait goes by poll()

bool EpollSet::open() { return false; }
bool EpollSet::add(int, short, uint32_t) { return false; }
bool EpollSet::change(int, short, uint32_t) { return false; }
bool EpollSet::remove(int) { return false; }
bool EpollSet::wait(int, int, std::vector<ReadyDescriptor>&) { return false; }

#endif

void EpollSet::close() {
  if (is_open()) ::close(fd_);
  fd_ = -1;
}
