#include "src/flow/outstanding.h"

#include <algorithm>
#include <utility>

#include "src/seq_latter.h"

namespace {

constexpr size_t kLeastRing = 32;

}  // namespace

Outstanding::Outstanding(uint16_t next, const std::vector<uint16_t>& taken, uint32_t now)
    : next_(next) {
  uint16_t span = 0;
  for (const uint16_t seq : taken) span = std::max(span, static_cast<uint16_t>(next - seq));
  reserve(span);
  span_ = span;
  for (uint16_t seq = oldest(); seq != next_; ++seq) at(seq) = Sent{now, true};
  mark(taken);
}

void Outstanding::make_room(size_t count) {
  size_t size = std::max(ring_.size(), kLeastRing);
  while (size <= span_ + count) size *= 2;
  std::vector<Sent> larger(size);
  for (uint16_t seq = oldest(); seq != next_; ++seq) larger[seq & (size - 1)] = at(seq);
  ring_.swap(larger);
}

void Outstanding::adopt(uint16_t seq, uint32_t now) {
  const auto span = static_cast<uint16_t>(next_ - seq);
  if (span > span_) reserve(span - span_);
  for (; span_ < span; ++span_) at(static_cast<uint16_t>(oldest() - 1)) = Sent{now, true};
  if (std::exchange(at(seq).is_acknowledged, false)) ++count_;
}

bool Outstanding::remove(uint16_t seq) {
  if (!is_within(seq) || at(seq).is_acknowledged) return false;
  at(seq).is_acknowledged = true;
  --count_;
  drop_acknowledged();
  return true;
}

void Outstanding::remove_up_to(uint16_t una) {
  for (const auto end = static_cast<uint16_t>(una + 1); oldest() != end; --span_) {
    if (!at(oldest()).is_acknowledged) --count_;
  }
  drop_acknowledged();
}

void Outstanding::keep_only(const std::vector<uint16_t>& seqs) {
  for (uint16_t seq = oldest(); seq != next_; ++seq) at(seq).is_acknowledged = true;
  mark(seqs);
  drop_acknowledged();
}

// Of numbers that are all acknowledged these are not.
void Outstanding::mark(const std::vector<uint16_t>& seqs) {
  count_ = 0;
  for (const uint16_t seq : seqs) {
    if (is_within(seq) && std::exchange(at(seq).is_acknowledged, false)) ++count_;
  }
}

void Outstanding::remove_all_but_later(uint16_t una) {
  for (uint16_t seq = oldest(); seq != next_; ++seq) {
    if (!SeqLatter()(una, seq)) remove(seq);
  }
}

uint32_t Outstanding::older_than(uint32_t age, uint32_t now) const {
  uint32_t count = 0;
  for (uint16_t seq = oldest(); seq != next_ && this->age(seq, now) > age; ++seq) {
    if (!at(seq).is_acknowledged) ++count;
  }
  return count;
}

void Outstanding::drop_acknowledged() {
  while (span_ > 0 && at(oldest()).is_acknowledged) --span_;
}
