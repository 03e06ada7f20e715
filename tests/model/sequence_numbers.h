// The order of 16-bit sequence numbers, as arithmetic on a ring of 65536.
#ifndef TARN_TESTS_MODEL_SEQUENCE_NUMBERS_H_
#define TARN_TESTS_MODEL_SEQUENCE_NUMBERS_H_

#include <cstdint>

namespace tarn_model {

constexpr int kRing = 65536;
constexpr int kHalfRing = kRing / 2;

// Steps forward from `from` to `to`.
constexpr int steps(uint16_t from, uint16_t to) { return (to - from + kRing) % kRing; }

// `b` comes after `a`: 1 to 32767 steps forward.
constexpr bool is_after(uint16_t a, uint16_t b) {
  return steps(a, b) >= 1 && steps(a, b) < kHalfRing;
}

// Neither comes after the other: the same number, or the one half the ring away. Two such numbers
// cannot both be kept.
constexpr bool is_same_key(uint16_t a, uint16_t b) { return !is_after(a, b) && !is_after(b, a); }

// Whether the order of `kept` and `seq` together is one: none of them half the ring or more apart,
// or just two. Otherwise it runs in a circle, and what comes first in it is not determined.
template <typename Container>  // of things with a `seq`
bool have_an_order(const Container& kept, uint16_t seq) {
  int furthest_back = 0;
  int furthest_on = 0;
  for (const auto& one : kept) {
    const int on = steps(seq, one.seq);
    if (on == kHalfRing) return kept.size() == 1;
    if (on < kHalfRing && on > furthest_on) furthest_on = on;
    if (on > kHalfRing && kRing - on > furthest_back) furthest_back = kRing - on;
  }
  return furthest_back + furthest_on < kHalfRing;
}

}  // namespace tarn_model

#endif  // TARN_TESTS_MODEL_SEQUENCE_NUMBERS_H_
