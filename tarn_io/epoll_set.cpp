#include "tarn_io/epoll_set.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>

#ifdef __linux__

#include <sys/epoll.h>

namespace {

static_assert(EPOLLIN == POLLIN && EPOLLPRI == POLLPRI && EPOLLOUT == POLLOUT &&
                  EPOLLERR == POLLERR && EPOLLHUP == POLLHUP,
              "events are passed on as they are");

bool by_descriptor(const ReadyDescriptor& a, const ReadyDescriptor& b) { return a.fd < b.fd; }

ReadyDescriptor ready_descriptor(const epoll_event& event) {
  return {static_cast<int>(static_cast<uint32_t>(event.data.u64)), static_cast<short>(event.events),
          static_cast<uint32_t>(event.data.u64 >> 32)};
}

}  // namespace

void EpollSet::open() { fd_ = epoll_create1(EPOLL_CLOEXEC); }

bool EpollSet::change(int fd, short from, short to, uint32_t generation) {
  if (from == 0 && to == 0) return true;
  epoll_event event = {};
  event.events = static_cast<uint32_t>(to);
  event.data.u64 = (uint64_t{generation} << 32) | static_cast<uint32_t>(fd);
  const int change = from != 0 ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  return epoll_ctl(fd_, to == 0 ? EPOLL_CTL_DEL : change, fd, &event) == 0;
}

int EpollSet::wait(int set, int timeout, Ready& ready) {
  epoll_event events[kMostAtOnce];
  const int count = epoll_wait(set, events, kMostAtOnce, timeout);
  for (int i = 0; i < count; ++i) ready[i] = ready_descriptor(events[i]);
  if (count > 1) std::sort(ready, ready + count, by_descriptor);
  return count;
}

#else  // every wait goes by poll()

void EpollSet::open() {}
bool EpollSet::change(int, short, short, uint32_t) { return false; }
int EpollSet::wait(int, int, Ready&) { return -1; }

#endif

void EpollSet::close() {
  if (is_open()) ::close(fd_);
  fd_ = -1;
}
