// RoundTrip: how long the peer takes to acknowledge.
#ifndef TARN_SRC_FLOW_ROUND_TRIP_H_
#define TARN_SRC_FLOW_ROUND_TRIP_H_

#include <stdint.h>

#include <algorithm>

// Measures one segment at a time, from its first sending to its acknowledgement. One that has been
// sent again may say more than is true, when the first one was lost; so it only counts if its
// acknowledgement comes too early to be for the second one, or if nothing is known yet. Times are
// in microseconds.
class RoundTrip {
 public:
  bool is_measuring() const { return is_measuring_; }
  void on_sent(uint16_t seq, uint64_t now) {
    is_measuring_ = true;
    is_resent_ = false;
    seq_ = seq;
    sent_ = now;
  }
  // Requires: concerns(seq), for the segment that has been sent again.
  void on_resent(uint64_t now) {
    is_resent_ = true;
    resent_ = now;
  }
  // Whether it is measured what an acknowledgement of `seq`, or of everything up to `una`, is for.
  bool concerns(uint16_t seq) const { return is_measuring_ && seq == seq_; }
  bool is_covered_by(uint16_t una) const {
    return is_measuring_ && static_cast<uint16_t>(una - seq_) < 0x8000;
  }
  void on_acknowledged(uint64_t now) {
    is_measuring_ = false;
    if (is_resent_ && least_ != 0 && now - resent_ >= least_ / 2) return;
    const auto sample = static_cast<uint32_t>(std::clamp<uint64_t>(now - sent_, 1, UINT32_MAX));
    least_ = least_ == 0 ? sample : std::min(least_, sample);
    smooth_ = smooth_ == 0 ? sample : smooth_ - smooth_ / 8 + sample / 8;
  }

  // 0: not known yet.
  uint32_t smooth() const { return smooth_; }
  uint32_t least() const { return least_; }

 private:
  bool is_measuring_ = false;
  bool is_resent_ = false;
  uint16_t seq_ = 0;
  uint64_t sent_ = 0;
  uint64_t resent_ = 0;  // for the last time
  uint32_t smooth_ = 0;
  uint32_t least_ = 0;
};

#endif  // TARN_SRC_FLOW_ROUND_TRIP_H_
