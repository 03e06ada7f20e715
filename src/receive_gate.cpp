#include "src/receive_gate.h"

#include <utility>

void ReceiveGate::pause(bool on) {
  const oxutils::scoped_lock hold(lock_);
  is_paused_ = on;
}

bool ReceiveGate::is_paused() const {
  const oxutils::scoped_lock hold(lock_);
  return is_paused_;
}

bool ReceiveGate::enter() {
  const oxutils::scoped_lock hold(lock_);
  if (is_paused_ || is_taken_) {
    is_wanted_ = true;
    return false;
  }
  is_taken_ = true;
  holder_ = pthread_self();
  return true;
}

bool ReceiveGate::leave() {
  const oxutils::scoped_lock hold(lock_);
  is_taken_ = false;
  const bool was_wanted = std::exchange(is_wanted_, false);
  return !is_paused_ && (was_wanted || !withheld_.empty());
}

bool ReceiveGate::withhold(DataView& message, size_t segments) {
  const oxutils::scoped_lock hold(lock_);
  const bool is_others = is_taken_ && pthread_equal(holder_, pthread_self()) == 0;
  if (!is_paused_ && withheld_.empty() && !is_others) return false;
  message.deep_copy();
  withheld_.push_back(Withheld{std::move(message), segments});
  withheld_segments_ += segments;
  return true;
}

bool ReceiveGate::take_withheld(DataView& message) {
  const oxutils::scoped_lock hold(lock_);
  if (is_paused_ || withheld_.empty()) return false;
  message = std::move(withheld_.front().message);
  withheld_segments_ -= withheld_.front().segments;
  withheld_.pop_front();
  return true;
}

size_t ReceiveGate::withheld() const {
  const oxutils::scoped_lock hold(lock_);
  return withheld_segments_;
}
