// Outstanding: the numbers that have been sent and are not acknowledged.
#ifndef TARN_SRC_FLOW_OUTSTANDING_H_
#define TARN_SRC_FLOW_OUTSTANDING_H_

#include <stddef.h>
#include <stdint.h>

#include <vector>

// Numbers are taken one after the other and acknowledged in any order. Times are ticks, in ms.
class Outstanding {
 public:
  // `next` is the number that will be taken next.
  explicit Outstanding(uint16_t next = 0) : next_(next) {}
  // These numbers, in any order, have been taken so far; nobody knows when.
  Outstanding(uint16_t next, const std::vector<uint16_t>& taken, uint32_t now);

  static constexpr uint32_t kNumbers = 0x10000;  // before they begin again

  // Room for so many more, so that add() cannot fail. Requires: they and the span together are
  // fewer than all numbers.
  void reserve(size_t count) {
    if (span_ + count >= ring_.size()) make_room(count);
  }
  // Takes the next number. Requires: reserve().
  void add(uint32_t now) {
    at(next_++) = Sent{now, false};
    ++span_;
    ++count_;
  }
  // A number that was taken before, and was not known to be outstanding.
  void adopt(uint16_t seq, uint32_t now);
  // False if the number is not outstanding.
  bool remove(uint16_t seq);
  // Whether everything up to and including `una` can have been acknowledged: that is outstanding,
  // or the one before the oldest that is.
  bool is_una(uint16_t una) const { return static_cast<uint16_t>(una + 1 - oldest()) <= span_; }
  // Requires: is_una(una).
  void remove_up_to(uint16_t una);
  // All others but these are acknowledged.
  void keep_only(const std::vector<uint16_t>& seqs);
  // What a send window lets go for any `una`.
  void remove_all_but_later(uint16_t una);

  uint16_t next() const { return next_; }
  // The oldest one; next() if there is none.
  uint16_t oldest() const { return static_cast<uint16_t>(next_ - span_); }
  // Numbers from the oldest to the next.
  uint32_t span() const { return span_; }
  uint32_t count() const { return count_; }
  // Since the number was taken. Requires: it lies between the oldest and the next.
  uint32_t age(uint16_t seq, uint32_t now) const { return now - at(seq).tick; }
  bool is_within(uint16_t seq) const { return static_cast<uint16_t>(seq - oldest()) < span_; }
  // How many have been so for longer than `age`.
  uint32_t older_than(uint32_t age, uint32_t now) const;
  // Since the oldest one was taken.
  uint32_t oldest_ms(uint32_t now) const { return span_ == 0 ? 0 : age(oldest(), now); }

 private:
  struct Sent {
    uint32_t tick;
    bool is_acknowledged;
  };

  Sent& at(uint16_t seq) { return ring_[seq & (ring_.size() - 1)]; }
  const Sent& at(uint16_t seq) const { return ring_[seq & (ring_.size() - 1)]; }
  void make_room(size_t count);
  void mark(const std::vector<uint16_t>& seqs);
  void drop_acknowledged();

  uint16_t next_;
  uint32_t span_ = 0;
  uint32_t count_ = 0;
  std::vector<Sent> ring_;  // by number; a power of two of them, at most as many as numbers
};

#endif  // TARN_SRC_FLOW_OUTSTANDING_H_
