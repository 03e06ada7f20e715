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

// Descriptors from which on there is a set, and below which there is one only while the poller is
// busy: after so many passes in a row with something in each and no change, until there has been
// nothing for so many ms. A change closes it at once, so that it is not in the way of whoever
// counts descriptors.
constexpr size_t kMany = 32;
constexpr size_t kFew = 16;
constexpr unsigned int kBusy = 64;
constexpr int kQuiet = 100;
// One pass in so many goes by poll(): the more descriptors, the fewer, since each of them is looked
// at.
constexpr size_t kPassesPerDescriptor = 32;
constexpr size_t kMostPasses = 1024;

int64_t monotonic_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace

// The instance outlives everything: the I/O thread polls until the process is gone.
TarnPoller::TarnPoller() { free_ = true; }

TarnPoller::~TarnPoller() = default;

void TarnPoller::Pass::clear() {
  set = -1;
  list.reset();
  fds.clear();
  ready.clear();
}

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
  std::shared_ptr<PollList> outdated;
  {
    const oxutils::scoped_lock hold(lock_);
    EventHandler& handler = handlers_[fd];
    if (get_events_flag(handler) == 0) handler.generation = next_generation();
    std::swap(handler.*slot, f);
    handler.paused_until = 0;
    note_change(fd, handler);
    outdated.swap(list_);
  }
  wake();  // the replaced function goes with no lock held
}

void TarnPoller::pause(int fd, int ms) {
  pause(fd, ms, kAny);
  wake();  // a wait that is under way has to end with the pause
}

void TarnPoller::pause(int fd, int ms, uint32_t generation) {
  const oxutils::scoped_lock hold(lock_);
  EventHandler* const handler = find(fd, generation);
  if (handler == nullptr) return;
  handler->paused_until = monotonic_ms() + ms;
  note_change(fd, *handler);
}

void TarnPoller::resume(int fd) {
  {
    const oxutils::scoped_lock hold(lock_);
    EventHandler* const handler = find(fd, kAny);
    if (handler != nullptr) {
      handler->paused_until = 0;
      note_change(fd, *handler);
    }
  }
  wake();
}

uint32_t TarnPoller::next_generation() {
  if (++last_generation_ == kAny) ++last_generation_;
  return last_generation_;
}

TarnPoller::EventHandler* TarnPoller::find(int fd, uint32_t generation) {
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

bool TarnPoller::begin(Pass& pass, int& timeout) {
  const oxutils::scoped_lock hold(lock_);
  polling_thread_ = pthread_self();
  if (handlers_.empty()) return false;
  choose_set();
  const bool is_for_set = set_.is_open() && !is_look();
  if (is_for_set) review(timeout);
  if (is_for_set && !set_failed_) {
    pass.set = set_.fd();
    pass.longest_on_set = handlers_.size() < kFew ? std::min(timeout, kQuiet) : timeout;
    pass.list = list_;
  } else {
    pass.list = current_list(timeout);
  }
  ++passes_;
  return true;
}

bool TarnPoller::is_look() const {
  return passes_ % std::min(kPassesPerDescriptor * handlers_.size(), kMostPasses) == 0;
}

// A set that could not be had, or could not be kept, is tried again with the next look.
void TarnPoller::choose_set() {
  if (!is_list_current()) become_quiet();
  if (set_failed_) close_set();
  if (is_look()) set_failed_ = false;
  const bool is_wanted = passes_ >= kBusy || handlers_.size() >= kMany;
  if (!set_failed_ && !set_.is_open() && is_wanted) open_set();
  if (set_failed_) close_set();
}

void TarnPoller::become_quiet() {
  if (handlers_.size() >= kFew) return;
  close_set();
  passes_ = 0;
}

void TarnPoller::close_set() {
  set_.close();
  to_review_ = std::vector<int>();
}

void TarnPoller::open_set() {
  set_failed_ = !set_.open();
  if (set_failed_) return;
  for (auto& each : handlers_) {
    each.second.in_set = false;
    arm(each.first, each.second);
  }
}

void TarnPoller::note_change(int fd, EventHandler& handler) {
  if (list_) list_->outdated = true;
  if (set_.is_open()) arm(fd, handler);
}

void TarnPoller::arm(int fd, EventHandler& handler) {
  const short events = get_events_flag(handler);
  bool done = true;
  if (events == 0 || handler.paused_until != 0) {
    to_review_.push_back(fd);
    if (handler.in_set) done = set_.remove(fd);
    handler.in_set = false;
  } else {
    done = handler.in_set ? set_.change(fd, events, handler.generation)
                          : set_.add(fd, events, handler.generation);
    handler.in_set = true;
  }
  if (!done) set_failed_ = true;
}

bool TarnPoller::is_paused(EventHandler& handler, int& timeout) {
  if (handler.paused_until == 0) return false;
  const int64_t left = handler.paused_until - monotonic_ms();
  if (left > 0) timeout = static_cast<int>(std::min<int64_t>(timeout, left));
  if (left <= 0) handler.paused_until = 0;
  return left > 0;
}

std::shared_ptr<const TarnPoller::PollList> TarnPoller::current_list(int& timeout) {
  if (!list_ || list_->outdated) list_ = make_list(timeout);
  return list_;
}

std::shared_ptr<TarnPoller::PollList> TarnPoller::make_list(int& timeout) {
  auto list = std::make_shared<PollList>();
  list->fds.reserve(handlers_.size());
  list->generations.reserve(handlers_.size());
  list->read_funcs.reserve(handlers_.size());
  for (auto each = handlers_.begin(); each != handlers_.end();) {
    EventHandler& handler = each->second;
    const short events = get_events_flag(handler);
    if (events == 0) {
      each = handlers_.erase(each);
      continue;
    }
    if (is_paused(handler, timeout)) {
      list->outdated = true;  // a pause ends by itself
    } else {
      list->fds.push_back({each->first, events, 0});
      list->generations.push_back(handler.generation);
      list->read_funcs.push_back(handler.read_func);
    }
    ++each;
  }
  return list;
}

void TarnPoller::review(int& timeout) {
  std::vector<int> fds;
  fds.swap(to_review_);
  for (const int fd : fds) {
    const auto found = handlers_.find(fd);
    if (found == handlers_.end()) continue;
    if (get_events_flag(found->second) == 0) {
      handlers_.erase(found);
    } else if (is_paused(found->second, timeout)) {
      to_review_.push_back(fd);
    } else {
      arm(fd, found->second);
    }
  }
}

void TarnPoller::wait(Pass& pass, int timeout) {
  if (pass.set < 0 || !wait_on_set(pass, timeout)) wait_on_list(pass, timeout);
}

bool TarnPoller::wait_on_set(Pass& pass, int& timeout) {
  if (!EpollSet::wait(pass.set, pass.longest_on_set, pass.ready)) give_up_set();
  if (!pass.ready.empty()) return true;
  pass.list.reset();  // which may be the last one to hold a function
  const oxutils::scoped_lock hold(lock_);
  become_quiet();
  timeout -= pass.longest_on_set;
  pass.list = current_list(timeout);
  return false;
}

// An interrupted or failed call yields no events.
void TarnPoller::wait_on_list(Pass& pass, int timeout) {
  pass.fds = pass.list->fds;
  pass.ready.reserve(pass.fds.size());
  const int count = ::poll(pass.fds.data(), static_cast<nfds_t>(pass.fds.size()), timeout);
  // It fails again at once while more is watched than the limit on descriptors allows.
  if (count < 0 && errno != EINTR) ::poll(nullptr, 0, std::min(timeout, kFailurePause));
  for (size_t i = 0; i < pass.fds.size(); ++i) {
    const pollfd& each = pass.fds[i];
    if (each.revents > 0) pass.ready.push_back({each.fd, each.revents, pass.list->generations[i]});
  }
}

void TarnPoller::give_up_set() {
  const oxutils::scoped_lock hold(lock_);
  set_failed_ = true;
}

bool TarnPoller::poll(unsigned int timeout) {
  // Its memory serves the next pass; a callback that polls from within finds none.
  std::unique_ptr<Pass> pass = std::move(spare_pass_);
  if (!pass) pass = std::make_unique<Pass>();
  int longest = static_cast<int>(std::min<unsigned int>(timeout, INT_MAX));
  if (!begin(*pass, longest)) return false;
  wait(*pass, longest);
  if (pass->ready.empty()) passes_ = 0;
  for (const ReadyDescriptor& each : pass->ready) {
    const bool taken = dispatch(*pass, each);
    if (!taken) silence(each.fd, each.revents, each.generation);
  }
  pass->clear();
  spare_pass_ = std::move(pass);
  return true;
}

// Runs a copy of the function: it may unwatch or replace its own slot meanwhile.
bool TarnPoller::run(int fd, Slot slot, uint32_t generation) {
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
bool TarnPoller::run_write(int fd, uint32_t generation) {
  if (!run(fd, &EventHandler::write_func, generation)) return false;
  oxutils::Function old;
  const oxutils::scoped_lock hold(lock_);
  EventHandler* const handler = find(fd, generation);
  if (handler == nullptr) return true;
  std::swap(handler->write_func, old);
  note_change(fd, *handler);
  return true;
}

// These events come whatever is polled for, again and again. A pending error goes by being read; it
// may have been read by a send or receive in between.
void TarnPoller::silence(int fd, short revents, uint32_t generation) {
  if ((revents & (POLLHUP | POLLNVAL)) != 0) {
    pause(fd, kHangUpPause, generation);
  } else if ((revents & POLLERR) != 0 && !clear_error(fd, generation)) {
    pause(fd, kErrorPause, generation);
  }
}

// Under the lock, since the number of what is not watched any more may be another one's by now.
bool TarnPoller::clear_error(int fd, uint32_t generation) {
  const oxutils::scoped_lock hold(lock_);
  EventHandler* const handler = find(fd, generation);
  if (handler == nullptr || get_events_flag(*handler) == 0) return true;
  int error = 0;
  socklen_t size = sizeof error;
  return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error != 0;
}

const oxutils::Function* TarnPoller::PollList::read_func(const ReadyDescriptor& ready) const {
  const auto found = std::lower_bound(fds.begin(), fds.end(), ready.fd,
                                      [](const pollfd& each, int fd) { return each.fd < fd; });
  if (found == fds.end() || found->fd != ready.fd) return nullptr;
  const auto place = static_cast<size_t>(found - fds.begin());
  const bool is_same = generations[place] == ready.generation && read_funcs[place];
  return is_same ? &read_funcs[place] : nullptr;
}

// Nearly always there is something to read and nothing has changed since the list was made: what it
// holds is what the slot holds, and stays alive as long as the pass.
bool TarnPoller::dispatch(const Pass& pass, const ReadyDescriptor& ready) {
  if (ready.revents == POLLIN && pass.list && !pass.list->outdated) {
    const oxutils::Function* const f = pass.list->read_func(ready);
    if (f != nullptr) {
      (*f)();
      return true;
    }
  }
  return dispatch(ready.fd, ready.revents, ready.generation);
}

void TarnPoller::handle_event(int fd, short revents) { dispatch(fd, revents, kAny); }

bool TarnPoller::dispatch(int fd, short revents, uint32_t generation) {
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
