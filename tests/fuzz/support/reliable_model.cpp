#include "tests/fuzz/support/reliable_model.h"

namespace tarn_fuzz {

ReliableModel::Outcome ReliableModel::input(unsigned seq, const std::string& payload, unsigned flag,
                                            size_t limit) {
  Outcome outcome;
  const bool ends_message = flag % 2 == 1;
  const unsigned ahead = (seq + 65536 - last_) % 65536;
  if (seq == next()) {
    started_ = true;
    deliver(seq, payload, ends_message, outcome);
    while (true) {
      const auto found = early_.find(next());
      if (found == early_.end()) break;
      const Early released = found->second;
      early_.erase(found);
      deliver(next(), released.payload, released.ends_message, outcome);
    }
    return outcome;
  }
  const bool is_early = ahead >= 1 && ahead <= 32767;
  if (started_ && !is_early) return outcome;  // a repetition
  if (!is_early) is_exact_ = false;
  if (early_.size() >= limit) {
    outcome.is_refused = true;
  } else {
    early_.emplace(seq, Early{payload, ends_message});
  }
  return outcome;
}

void ReliableModel::deliver(unsigned seq, const std::string& payload, bool ends_message,
                            Outcome& outcome) {
  last_ = seq;
  unfinished_ += payload;
  if (!ends_message) return;
  outcome.messages.push_back(unfinished_);
  unfinished_.clear();
}

}  // namespace tarn_fuzz
