#include "tarn_io/tarn_poller.h"

#include <errno.h>
#include <limits.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <utility>

#include "src/tarn_log.h"

namespace {

// ms after which an event that nobody takes is looked at again: a hang-up is there to stay, while
// a pending error goes with the next send or receive on any thread.
constexpr int kHangUpPause = 100;
constexpr int kErrorPause = 10;
// ms after which a wait that could not begin is tried again
constexpr int kFailurePause = 20;

int64_t monotonic_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace

// The instance outlives everything: the I/O thread polls until the process is gone.
TarnPoller::TarnPoller() { free_ = true; }

TarnPoller::~TarnPoller() = default;

void TarnPoller::watch_read(int fd, oxutils::Function f) {
  store(fd, &EventHandler::read_func, std::move(f));
}

void TarnPoller::watch_write(int fd, oxutils::Function f) {
  store(fd, &EventHandler::write_func, std::move(f));
}

void TarnPoller::watch_error(int fd, oxutils::Function f) {
  store(fd, &EventHandler::error_func, std::move(f));
}

void TarnPoller::unwatch_read(int fd) { store(fd, &EventHandler::read_func, oxutils::Function()); }

void TarnPoller::unwatch_write(int fd) {
  store(fd, &EventHandler::write_func, oxutils::Function());
}

void TarnPoller::unwatch_error(int fd) {
  store(fd, &EventHandler::error_func, oxutils::Function());
}

void TarnPoller::store(int fd, Slot slot, oxutils::Function f) {
  {
    const oxutils::scoped_lock hold(lock_);
    EventHandler& handler = handlers_[fd];
    if (get_events_flag(handler) == 0) handler.generation = ++last_generation_;
    std::swap(handler.*slot, f);
    handler.paused_until = 0;
  }
  wake();  // the replaced function goes with no lock held
}

void TarnPoller::pause(int fd, int ms) { pause(fd, ms, kAny); }

void TarnPoller::pause(int fd, int ms, uint64_t generation) {
  const oxutils::scoped_lock hold(lock_);
  EventHandler* const handler = find(fd, generation);
  if (handler != nullptr) handler->paused_until = monotonic_ms() + ms;
}

void TarnPoller::resume(int fd) {
  {
    const oxutils::scoped_lock hold(lock_);
    EventHandler* const handler = find(fd, kAny);
    if (handler != nullptr) handler->paused_until = 0;
  }
  wake();
}

TarnPoller::EventHandler* TarnPoller::find(int fd, uint64_t generation) {
  const auto found = handlers_.find(fd);
  if (found == handlers_.end()) return nullptr;
  return generation == kAny || found->second.generation == generation ? &found->second : nullptr;
}

void TarnPoller::set_waker(const oxutils::Function& f) {
  const oxutils::scoped_lock hold(lock_);
  if (!waker_) waker_ = f;
}

void TarnPoller::reset_waker(const oxutils::Function& f) {
  const oxutils::scoped_lock hold(lock_);
  if (waker_.get() == f.get()) waker_ = oxutils::Function();
}

void TarnPoller::wake() {
  oxutils::Function waker;
  {
    const oxutils::scoped_lock hold(lock_);
    if (pthread_equal(polling_thread_, pthread_self()) != 0) return;
    waker = waker_;
  }
  if (waker) waker();
}

short TarnPoller::get_events_flag(EventHandler& handler) {
  int events = 0;
  if (handler.read_func) events |= POLLIN;
  if (handler.write_func) events |= POLLOUT;
  if (handler.error_func) events |= POLLERR;
  return static_cast<short>(events);
}

bool TarnPoller::collect(Polled& polled, int& timeout) {
  const oxutils::scoped_lock hold(lock_);
  polling_thread_ = pthread_self();
  if (handlers_.empty()) return false;
  polled.fds.reserve(handlers_.size());
  polled.generations.reserve(handlers_.size());
  for (auto each = handlers_.begin(); each != handlers_.end();) {
    EventHandler& handler = each->second;
    const short events = get_events_flag(handler);
    if (events == 0) {
      each = handlers_.erase(each);
      continue;
    }
    const int64_t left = handler.paused_until != 0 ? handler.paused_until - monotonic_ms() : 0;
    if (left > 0) {
      timeout = static_cast<int>(std::min<int64_t>(timeout, left));
    } else {
      polled.fds.push_back({each->first, events, 0});
      polled.generations.push_back(handler.generation);
    }
    ++each;
  }
  return true;
}

bool TarnPoller::poll(unsigned int timeout) {
  Polled polled;
  int wait = static_cast<int>(std::min<unsigned int>(timeout, INT_MAX));
  if (!collect(polled, wait)) return false;
  // An interrupted or failed call yields no events.
  const int count = ::poll(polled.fds.data(), static_cast<nfds_t>(polled.fds.size()), wait);
  // It fails again at once while more is watched than the limit on descriptors allows.
  if (count < 0 && errno != EINTR) ::poll(nullptr, 0, std::min(wait, kFailurePause));
  for (size_t i = 0; i < polled.fds.size(); ++i) {
    const pollfd& each = polled.fds[i];
    if (each.revents <= 0) continue;
    const uint64_t generation = polled.generations[i];
    if (!dispatch(each.fd, each.revents, generation)) silence(each.fd, each.revents, generation);
  }
  return true;
}

// Runs a copy of the function: it may unwatch or replace its own slot meanwhile.
bool TarnPoller::run(int fd, Slot slot, uint64_t generation) {
  oxutils::Function f;
  {
    const oxutils::scoped_lock hold(lock_);
    EventHandler* const handler = find(fd, generation);
    if (handler != nullptr) f = handler->*slot;
  }
  if (!f) return false;
  f();
  return true;
}

// Write readiness is told once per watch. Emptied after the call: a watch made inside it is undone.
bool TarnPoller::run_write(int fd, uint64_t generation) {
  if (!run(fd, &EventHandler::write_func, generation)) return false;
  oxutils::Function old;
  const oxutils::scoped_lock hold(lock_);
  EventHandler* const handler = find(fd, generation);
  if (handler != nullptr) std::swap(handler->write_func, old);
  return true;
}

// These events come whatever is polled for, again and again. A pending error goes by being read; it
// may have been read by a send or receive in between.
void TarnPoller::silence(int fd, short revents, uint64_t generation) {
  if ((revents & (POLLHUP | POLLNVAL)) != 0) {
    pause(fd, kHangUpPause, generation);
  } else if ((revents & POLLERR) != 0) {
    int error = 0;
    socklen_t size = sizeof error;
    const bool cleared = getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error != 0;
    if (!cleared) pause(fd, kErrorPause, generation);
  }
}

void TarnPoller::handle_event(int fd, short revents) { dispatch(fd, revents, kAny); }

bool TarnPoller::dispatch(int fd, short revents, uint64_t generation) {
  bool taken = false;
  if ((revents & POLLHUP) != 0 && (revents & POLLIN) == 0) {
    taken |= run(fd, &EventHandler::error_func, generation);
  }
  if ((revents & (POLLERR | POLLNVAL)) != 0) {
    taken |= run(fd, &EventHandler::error_func, generation);
  }
  if ((revents & (POLLIN | POLLPRI)) != 0) {
    taken |= run(fd, &EventHandler::read_func, generation);
  }
  if ((revents & POLLOUT) != 0) taken |= run_write(fd, generation);
  return taken;
}

std::vector<int> TarnPoller::watched() {
  const oxutils::scoped_lock hold(lock_);
  std::vector<int> fds;
  for (const auto& each : handlers_) fds.push_back(each.first);
  return fds;
}

// True when nothing is watched; `highest` counts descriptors without live slots too.
bool TarnPoller::fill_sets(fd_set* read, fd_set* write, fd_set* error, int& highest) {
  const oxutils::scoped_lock hold(lock_);
  polling_thread_ = pthread_self();
  for (const auto& each : handlers_) {
    const int fd = each.first;
    highest = std::max(highest, fd);
    if (fd < 0 || fd >= FD_SETSIZE) continue;
    if (each.second.read_func) FD_SET(fd, read);
    if (each.second.write_func) FD_SET(fd, write);
    if (each.second.error_func) FD_SET(fd, error);
  }
  return handlers_.empty();
}

bool TarnPoller::select(unsigned int timeout) {
  fd_set read;
  fd_set write;
  fd_set error;
  FD_ZERO(&read);
  FD_ZERO(&write);
  FD_ZERO(&error);
  int highest = -1;
  if (fill_sets(&read, &write, &error, highest)) return false;
  timeval wait;
  wait.tv_sec = timeout / 1000;
  wait.tv_usec = static_cast<suseconds_t>(timeout % 1000) * 1000;
  const int count = std::min(highest + 1, static_cast<int>(FD_SETSIZE));
  const int result = ::select(count, &read, &write, &error, &wait);
  if (result < 0) {
    TARN_LOG_ERROR("select ret %d", result);
    return false;
  }
  handle_event(&read, &write, &error);
  return true;
}

void TarnPoller::handle_event(fd_set* read, fd_set* write, fd_set* error) {
  for (const int fd : watched()) {
    if (fd < 0 || fd >= FD_SETSIZE) continue;
    if (FD_ISSET(fd, read)) run(fd, &EventHandler::read_func, kAny);
    if (FD_ISSET(fd, write)) run_write(fd, kAny);
    if (FD_ISSET(fd, error)) run(fd, &EventHandler::error_func, kAny);
  }
}
