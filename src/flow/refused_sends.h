// RefusedSends: whether somebody waits to be told that there is room again.
#ifndef TARN_SRC_FLOW_REFUSED_SENDS_H_
#define TARN_SRC_FLOW_REFUSED_SENDS_H_

#include <stdint.h>

#include <algorithm>

#include "src/flow/send_room.h"

class RefusedSends {
 public:
  // A message of `size` bytes was refused.
  void add(uint64_t size) { smallest_ = std::min(smallest_, size); }
  bool any() const { return smallest_ != kNone; }

  // Whether to tell of it now: half of what can be outstanding is free, and the smallest message
  // fits, if it still can. Then nobody waits any more.
  bool take(const SendRoom& room) {
    if (!any() || !room.is_half_free() || room.bytes() < std::min(smallest_, room.most_bytes())) {
      return false;
    }
    smallest_ = kNone;
    return true;
  }

 private:
  static constexpr uint64_t kNone = UINT64_MAX;
  uint64_t smallest_ = kNone;
};

#endif  // TARN_SRC_FLOW_REFUSED_SENDS_H_
