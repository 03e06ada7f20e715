// SeqLatter: the wrap-around order of 16-bit sequence numbers.
#ifndef TARN_SRC_SEQ_LATTER_H_
#define TARN_SRC_SEQ_LATTER_H_

#include <stdint.h>

// True when b lies 1 to 32767 steps after a. Two numbers 32768 steps apart order neither way, so a
// map takes them for equal keys; and beyond half the ring the order is not transitive. Code that
// erases or delivers compares the exact number as well.
struct SeqLatter {
  constexpr bool operator()(uint16_t a, uint16_t b) const {
    return static_cast<uint16_t>(b - a) < static_cast<uint16_t>(a - b);
  }
};

#endif  // TARN_SRC_SEQ_LATTER_H_
