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

bool by_descriptor(const ReadyDescriptor& a, const ReadyDescriptor& b) { return a.fd < b.fd; }

ReadyDescriptor ready_descriptor(const epoll_event& event) {
  return {static_cast<int>(static_cast<uint32_t>(event.data.u64)), static_cast<short>(event.events),
          static_cast<uint32_t>(event.data.u64 >> 32)};
}

}  // namespace

void EpollSet::open() {
  close();
  fd_ = epoll_create1(EPOLL_CLOEXEC);
  has_failed_ = !is_open();
}

bool EpollSet::control(int operation, int fd, short events, uint32_t generation) {
  epoll_event event = {};
  event.events = static_cast<uint32_t>(events);
  event.data.u64 = tag(fd, generation);
  return epoll_ctl(fd_, operation, fd, &event) == 0;
}

void EpollSet::watch(int fd, short events, uint32_t generation) {
  const auto place = static_cast<size_t>(fd);  // a negative one is refused before it matters
  const bool is_in = place < has_.size() && has_[place];
  if (events == 0 && !is_in) return;
  const int change = is_in ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  if (!control(events == 0 ? EPOLL_CTL_DEL : change, fd, events, generation)) {
    has_failed_ = true;
    return;
  }
  if (place >= has_.size()) has_.resize(place + 1);
  has_[place] = events != 0;
}

WaitOutcome EpollSet::wait(int set, int timeout, std::vector<ReadyDescriptor>& ready) {
  epoll_event events[kMostAtOnce];
  const int count = epoll_wait(set, events, kMostAtOnce, timeout);
  if (count < 0) return errno == EINTR ? WaitOutcome::kInterrupted : WaitOutcome::kFailed;
  for (int i = 0; i < count; ++i) ready.push_back(ready_descriptor(events[i]));
  if (count > 1) std::sort(ready.begin(), ready.end(), by_descriptor);
  return count > 0 ? WaitOutcome::kReady : WaitOutcome::kNothing;
}

#else  // every wait goes by poll()

void EpollSet::open() { has_failed_ = true; }
void EpollSet::watch(int, short, uint32_t) {}
WaitOutcome EpollSet::wait(int, int, std::vector<ReadyDescriptor>&) { return WaitOutcome::kFailed; }

#endif

void EpollSet::close() {
  if (is_open()) ::close(fd_);
  fd_ = -1;
  has_ = std::vector<bool>();
}
