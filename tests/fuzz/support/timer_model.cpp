#include "tests/fuzz/support/timer_model.h"

#include <algorithm>
#include <utility>

namespace tarn_fuzz {
namespace {

constexpr int kLongest = 10000;

// Signed, so that a small difference across the wrap of the tick stays small.
int ticks_from(uint32_t now, uint32_t expiration) { return static_cast<int>(expiration - now); }

}  // namespace

void TimerModel::add(int id, int delay, int interval, bool on_own_thread) {
  const int used = std::max(delay, 1);
  const auto timer = std::make_shared<Timer>(
      Timer{id, now_ + static_cast<uint32_t>(used), std::max(interval, 0), used, false});
  if (on_own_thread) {
    file(timer);
    return;
  }
  on_way_[id] = timer;
  changes_.push_back(Change{timer, 0});
}

void TimerModel::cancel(int id, bool on_own_thread) {
  if (on_own_thread) {
    apply_cancel(id);
  } else {
    changes_.push_back(Change{nullptr, id});
  }
}

void TimerModel::drain() {
  for (const Change& change : std::exchange(changes_, {})) {
    if (change.added) {
      on_way_.erase(change.added->id);
      file(change.added);
    } else {
      apply_cancel(change.cancelled);
    }
  }
}

void TimerModel::file(const TimerPtr& timer) {
  if (timer->is_removed) return;
  if (timer->interval > 0) {
    periodic_[timer->interval].push_back(timer);
    index_[timer->id] = timer;
    return;
  }
  one_shots_.push_back(timer);
  one_shot_timeout_ = std::min(one_shot_timeout_, timer->delay);
}

void TimerModel::apply_cancel(int id) {
  one_shots_.erase(std::remove_if(one_shots_.begin(), one_shots_.end(),
                                  [id](const TimerPtr& each) { return each->id == id; }),
                   one_shots_.end());
  // One that has been overtaken arrives all the same, and is dropped.
  const auto overtaken = on_way_.find(id);
  if (overtaken != on_way_.end()) overtaken->second->is_removed = true;
  const auto periodic = index_.find(id);
  if (periodic == index_.end()) return;
  periodic->second->is_removed = true;
  index_.erase(periodic);
}

int TimerModel::timeout() const {
  return std::max(0, std::min(one_shot_timeout_, periodic_timeout_));
}

size_t TimerModel::live() const {
  size_t count = one_shots_.size();
  for (const Change& each : changes_) count += each.added ? 1 : 0;
  for (const auto& each : periodic_) count += each.second.size();
  return count;
}

void TimerModel::begin_pass() {
  pass_now_ = now_;
  const uint32_t elapsed = now_ - last_tick_;
  last_tick_ = now_;
  const int left = static_cast<int>(static_cast<uint32_t>(one_shot_timeout_) - elapsed);
  one_shots_done_ = left > 0;
  if (one_shots_done_) {
    one_shot_timeout_ = left;
  } else {
    take_due();
  }
  periodic_begun_ = false;
  pass_timeout_ = kLongest;
}

// Strictly before now, and with no regard to the wrap.
void TimerModel::take_due() {
  const auto first_due =
      std::stable_partition(one_shots_.begin(), one_shots_.end(),
                            [this](const TimerPtr& each) { return each->expiration >= pass_now_; });
  due_.assign(first_due, one_shots_.end());
  one_shots_.erase(first_due, one_shots_.end());
}

// Ascending expirations; those with the same one may come in any order.
bool TimerModel::is_next_one_shot(int id) {
  const auto found =
      std::find_if(due_.begin(), due_.end(), [id](const TimerPtr& each) { return each->id == id; });
  if (found == due_.end()) return false;
  const uint32_t expiration = (*found)->expiration;
  due_.erase(found);
  return std::all_of(due_.begin(), due_.end(),
                     [expiration](const TimerPtr& each) { return each->expiration >= expiration; });
}

void TimerModel::end_one_shots() {
  if (one_shots_done_) return;
  one_shots_done_ = true;
  one_shot_timeout_ = kLongest;
  const auto first = std::min_element(
      one_shots_.begin(), one_shots_.end(),
      [](const TimerPtr& a, const TimerPtr& b) { return a->expiration < b->expiration; });
  if (first == one_shots_.end()) return;
  const int left = ticks_from(pass_now_, (*first)->expiration);
  // In the past, but not before the pass: the tick has wrapped.
  if (left < 0 && (*first)->expiration >= pass_now_) return;
  one_shot_timeout_ = std::min(left, kLongest);
}

void TimerModel::requeue_running() {
  if (!running_) return;
  std::deque<TimerPtr>& queue = periodic_[running_->interval];
  queue.push_back(running_);
  queue.pop_front();
  running_.reset();
}

// The timer to run next, moved on by one period, or none when the pass is over.
TimerModel::TimerPtr TimerModel::next_periodic() {
  requeue_running();
  auto at = periodic_begun_ ? periodic_.lower_bound(cursor_) : periodic_.begin();
  periodic_begun_ = true;
  for (; at != periodic_.end(); ++at) {
    cursor_ = at->first;
    std::deque<TimerPtr>& queue = at->second;
    while (!queue.empty() && ticks_from(pass_now_, queue.front()->expiration) <= 0) {
      if (!queue.front()->is_removed) {
        running_ = queue.front();
        running_->expiration += static_cast<uint32_t>(running_->interval);
        return running_;
      }
      queue.pop_front();
    }
    if (queue.empty()) continue;
    pass_timeout_ = std::min(pass_timeout_, ticks_from(pass_now_, queue.front()->expiration));
  }
  return nullptr;
}

bool TimerModel::took_place(int id) {
  if (!due_.empty()) return is_next_one_shot(id);
  end_one_shots();
  const TimerPtr next = next_periodic();
  return next && next->id == id;
}

bool TimerModel::end_pass() {
  if (!due_.empty()) return false;
  end_one_shots();
  if (next_periodic()) return false;
  periodic_timeout_ = pass_timeout_;
  return true;
}

// What has run has run; the rest is due at once.
void TimerModel::leave_pass() {
  (one_shots_done_ ? periodic_timeout_ : one_shot_timeout_) = 0;
  one_shots_.insert(one_shots_.end(), due_.begin(), due_.end());
  due_.clear();
  requeue_running();
}

}  // namespace tarn_fuzz
