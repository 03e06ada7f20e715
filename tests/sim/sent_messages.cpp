#include "tests/sim/sent_messages.h"

#include <algorithm>
#include <utility>

namespace tarn_sim {

SentMessages::Message SentMessages::begin(std::string bytes) {
  by_bytes_.emplace(bytes, next_);
  calls_.emplace(next_, Call{std::move(bytes), ++now_});
  return next_++;
}

const char* SentMessages::end(Message message, Fate fate) {
  Call& call = calls_.at(message);
  call.returned = ++now_;
  const std::string bytes = call.bytes;
  const bool was_placed = call.is_placed;
  if (was_placed || fate == Fate::kRefused) forget(message);
  if (!was_placed && fate == Fate::kTaken) {
    call.is_taken = true;
    ++taken_;
  }
  // Then an equal one was meant.
  return was_placed && fate == Fate::kRefused ? place(bytes) : nullptr;
}

const char* SentMessages::place(const std::string& bytes) {
  const auto found = by_bytes_.find(bytes);  // the oldest of equal ones
  return found == by_bytes_.end() ? "has been taken by no call" : place(found->second);
}

const char* SentMessages::place(Message message) {
  Call& call = calls_.at(message);
  const bool is_late = call.returned < latest_begun_;
  latest_begun_ = std::max(latest_begun_, call.begun);
  if (call.is_taken) --taken_;
  unlist(message);
  call.is_placed = true;
  if (call.returned != UINT64_MAX) forget(message);
  return is_late ? "goes out after one that was given later" : nullptr;
}

void SentMessages::forget(Message message) {
  if (!calls_.at(message).is_placed) unlist(message);
  calls_.erase(message);
}

void SentMessages::unlist(Message message) {
  const auto range = by_bytes_.equal_range(calls_.at(message).bytes);
  by_bytes_.erase(std::find_if(range.first, range.second,
                               [message](const auto& each) { return each.second == message; }));
}

}  // namespace tarn_sim
