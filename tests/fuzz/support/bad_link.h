// BadLink: the datagrams on their way from one end to the other, and what may happen to them there.
#ifndef TARN_TESTS_FUZZ_SUPPORT_BAD_LINK_H_
#define TARN_TESTS_FUZZ_SUPPORT_BAD_LINK_H_

#include <stddef.h>

#include <deque>
#include <string>

#include "tests/fuzz/support/fuzz_input.h"

namespace tarn_fuzz {

// One direction. It keeps a bounded number of datagrams; what comes on top is lost.
class BadLink {
 public:
  size_t size() const { return flying_.size(); }
  void put(std::string datagram);
  // Any of them, so that they arrive in any order. Requires: there is one.
  std::string take(size_t index);

  // Loses, repeats, swaps, cuts or changes one. True when that may have made another valid datagram
  // of it, with which the peer can say anything.
  bool mistreat(FuzzInput& input);

 private:
  std::deque<std::string> flying_;
};

}  // namespace tarn_fuzz

#endif  // TARN_TESTS_FUZZ_SUPPORT_BAD_LINK_H_
