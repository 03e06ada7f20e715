// TarnPoller's wait by poll() or on a set, and what it waits for.
#include <algorithm>

#include "tarn_io/poll_clock.h"
#include "tarn_io/tarn_poller.h"

void TarnPoller::Pass::clear() {
  set = -1;
  list.reset();
  longest = INT_MAX;
  ready.clear();
}

bool TarnPoller::begin(Pass& pass, int& timeout) {
  polling_thread_ = pthread_self();
  const int64_t now = PollClock::coarse_now();
  const bool is_look = pace_.is_look_due(now);
  if (!is_look && pass.is_lasting()) return true;
  pass.clear();
  const oxutils::scoped_lock hold(lock_);
  if (is_look) pace_.note_look(handlers_.size(), now);
  choose_set(is_look);
  if (handlers_.empty()) return false;
  if (is_look || !take_set(pass, timeout)) pass.list = current_list(timeout);
  if (set_.is_open()) pass.longest = PollPace::longest_wait(handlers_.size());
  return true;
}

bool TarnPoller::take_set(Pass& pass, int& timeout) {
  if (!set_.is_open()) return false;
  review(timeout);
  if (set_.has_failed()) return false;
  pass.set = set_.fd();
  pass.list = list_;
  return true;
}

// A set that could not be had, or could not be kept, is tried again with the next look.
void TarnPoller::choose_set(bool is_look) {
  const bool has_changed = !list_ || list_->is_outdated();
  if (has_changed || pace_.is_calm()) drop_small_set();
  if (set_.has_failed()) close_set();
  const bool may_open = is_look || !set_.has_failed();
  if (may_open && !set_.is_open() && pace_.wants_set(handlers_.size())) open_set();
}

void TarnPoller::drop_small_set() {
  if (!PollPace::is_few(handlers_.size())) return;
  close_set();
  pace_.calm_down();
}

void TarnPoller::open_set() {
  set_.open();
  if (!set_.is_open()) return;
  for (auto& each : handlers_) arm(each.first, each.second);
  if (set_.has_failed()) close_set();
}

// A lasting pass would wait on the closed number: with its list outdated it lasts no longer.
void TarnPoller::close_set() {
  if (set_.is_open()) outdate_list();
  set_.close();
  to_review_.clear();
}

void TarnPoller::outdate_list() {
  if (list_) list_->outdate();
}

void TarnPoller::note_change(int fd, EventHandler& handler) {
  outdate_list();
  if (set_.is_open()) arm(fd, handler);
}

void TarnPoller::arm(int fd, EventHandler& handler) {
  const bool is_paused = handler.paused_until != 0;
  const short events = is_paused ? short{0} : get_events_flag(handler);
  if (events == 0) to_review_.insert(fd);
  set_.watch(fd, events, handler.generation);
}

bool TarnPoller::is_paused(EventHandler& handler, int& timeout) {
  if (handler.paused_until == 0) return false;
  const int64_t left = handler.paused_until - PollClock::now();
  if (left > 0) timeout = static_cast<int>(std::min<int64_t>(timeout, left));
  if (left <= 0) handler.paused_until = 0;
  return left > 0;
}

std::shared_ptr<const PollList> TarnPoller::current_list(int& timeout) {
  if (!list_ || list_->is_outdated()) list_ = make_list(timeout);
  return list_;
}

std::shared_ptr<PollList> TarnPoller::make_list(int& timeout) {
  auto list = std::make_shared<PollList>();
  list->reserve(handlers_.size());
  for (auto each = handlers_.begin(); each != handlers_.end();) {
    EventHandler& handler = each->second;
    const short events = get_events_flag(handler);
    if (events == 0) {
      each = handlers_.erase(each);
      continue;
    }
    if (is_paused(handler, timeout)) {
      list->outdate();  // a pause ends by itself
    } else {
      list->add(each->first, events, handler.generation, handler.read_func);
    }
    ++each;
  }
  return list;
}

void TarnPoller::review(int& timeout) {
  std::set<int> fds;
  fds.swap(to_review_);
  for (const int fd : fds) {
    const auto found = handlers_.find(fd);
    if (found == handlers_.end()) continue;
    if (get_events_flag(found->second) == 0) {
      handlers_.erase(found);
    } else if (is_paused(found->second, timeout)) {
      to_review_.insert(fd);
    } else {
      arm(fd, found->second);
    }
  }
}

WaitOutcome TarnPoller::wait_on(Pass& pass, int timeout) {
  return pass.set >= 0 ? EpollSet::wait(pass.set, timeout, pass.ready)
                       : pass.list->wait(timeout, pass.memory, pass.ready);
}

// A signal ends the pass; so does a wait on the list that fails.
void TarnPoller::wait(Pass& pass, int timeout) {
  const int longest = std::min(timeout, pass.longest);
  const WaitOutcome outcome = wait_on(pass, longest);
  if (outcome == WaitOutcome::kFailed && pass.set >= 0) {
    give_up_set();
    go_on_by_list(pass, timeout);
  } else if (outcome == WaitOutcome::kNothing && (pass.set >= 0 || longest < timeout)) {
    go_on_by_list(pass, timeout - longest);
  }
}

void TarnPoller::give_up_set() {
  const oxutils::scoped_lock hold(lock_);
  set_.note_failure();
}

void TarnPoller::go_on_by_list(Pass& pass, int timeout) {
  pass.clear();
  {
    const oxutils::scoped_lock hold(lock_);
    drop_small_set();
    pass.list = current_list(timeout);
  }
  wait_on(pass, timeout);
}
