// TarnPoller's wait, on the kernel's set or by poll(), and what it waits for.
#include <errno.h>
#include <limits.h>

#include <algorithm>
#include <utility>

#include "tarn_io/poll_clock.h"
#include "tarn_io/tarn_poller.h"

namespace {

constexpr int kLookPeriod = 1000;  // ms
constexpr int kFailurePause = 20;  // ms after which a wait by poll() that could not begin is over

}  // namespace

bool TarnPoller::poll(unsigned int timeout) {
  polling_thread_ = pthread_self();
  const int ms = static_cast<int>(std::min<unsigned int>(timeout, INT_MAX));
  const int64_t to_look = look_at_ - PollClock::coarse_now();
  int longest = static_cast<int>(std::min<int64_t>(ms, to_look));
  int set = to_look > 0 ? settled_set_.load() : kNone;
  if (to_look > 0 && set == kNone) set = settle(longest);
  if (set == kNone) return look(ms);
  EpollSet::Ready ready;
  const int count = EpollSet::wait(set, longest, ready);
  for (int i = 0; i < count; ++i) tell(ready[i]);
  if (count > 0 || (count < 0 && errno == EINTR)) return true;
  if (count < 0) {
    const oxutils::scoped_lock hold(lock_);
    note_failure();
  }
  look(count < 0 ? ms : ms - longest);
  return true;
}

int TarnPoller::settle(int& timeout) {
  const oxutils::scoped_lock hold(lock_);
  if (handlers_.empty() || !set_.is_open()) return kNone;
  review(timeout);
  if (has_failed_) return kNone;
  if (to_review_.empty() && !handlers_.empty()) settled_set_ = set_.fd();
  return set_.fd();
}

bool TarnPoller::look(int timeout) {
  Listed listed = std::move(spare_);  // a callback that polls from within finds none
  int longest = timeout;
  bool is_watching = list_all(listed, longest);
  while (is_watching && !poll_listed(listed, longest) && longest < timeout) {
    timeout -= longest;
    longest = timeout;
    is_watching = list_all(listed, longest);
  }
  spare_ = std::move(listed);
  return is_watching;
}

bool TarnPoller::poll_listed(Listed& listed, int timeout) {
  std::vector<pollfd>& fds = listed.fds;
  const int count = ::poll(fds.data(), static_cast<nfds_t>(fds.size()), timeout);
  if (count < 0 && errno != EINTR) {
    // It fails again at once while more is watched than the limit on descriptors allows.
    ::poll(nullptr, 0, std::min(timeout, kFailurePause));
  }
  for (size_t i = 0; count > 0 && i < fds.size(); ++i) {
    if (fds[i].revents > 0) tell({fds[i].fd, fds[i].revents, listed.generations[i]});
  }
  return count != 0;
}

bool TarnPoller::list_all(Listed& listed, int& timeout) {
  listed.fds.clear();
  listed.generations.clear();
  const oxutils::scoped_lock hold(lock_);
  if (handlers_.empty()) {
    set_.close();
    return false;
  }
  review(timeout);
  const int64_t now = PollClock::coarse_now();
  if (now >= look_at_) {
    look_at_ = now + kLookPeriod;
    renew_set();
  }
  for (auto& each : handlers_) {
    const short events = wanted(each.second);
    if (events == 0) continue;
    listed.fds.push_back({each.first, events, 0});
    listed.generations.push_back(each.second.generation);
  }
  return true;
}

void TarnPoller::review(int& timeout) {
  if (to_review_.empty()) return;
  const int64_t now = PollClock::now();
  for (auto each = to_review_.begin(); each != to_review_.end();) {
    EventHandler& handler = handlers_[*each];
    const int64_t rest = handler.rest_until - now;
    if (rest <= 0) handler.rest_until = 0;
    if (handler.armed != wanted(handler)) arm(*each, handler);
    if (get_events_flag(handler) == 0) {
      handlers_.erase(*each);
    } else if (rest > 0) {
      timeout = static_cast<int>(std::min<int64_t>(timeout, rest));
      ++each;
      continue;
    }
    each = to_review_.erase(each);
  }
}

void TarnPoller::renew_set() {
  if (set_.is_open() && !has_failed_) return;
  has_failed_ = false;
  set_.close();
  set_.open();
  // Its number is a watched descriptor's, which has been closed then. poll() is to tell of that.
  if (handlers_.count(set_.fd()) != 0) set_.close();
  for (auto& each : handlers_) {
    each.second.armed = 0;
    arm(each.first, each.second);
  }
}

short TarnPoller::wanted(EventHandler& handler) {
  return handler.rest_until != 0 ? short{0} : get_events_flag(handler);
}

void TarnPoller::arm(int fd, EventHandler& handler) {
  if (!set_.is_open() || has_failed_) return;
  const short events = wanted(handler);
  if (!set_.change(fd, handler.armed, events, handler.generation)) note_failure();
  handler.armed = events;
}

void TarnPoller::note_failure() {
  has_failed_ = true;
  settled_set_ = kNone;
}

void TarnPoller::note_review(int fd) {
  to_review_.insert(fd);
  settled_set_ = kNone;
}
