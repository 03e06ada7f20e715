// SpinWatch: whether a thread waits again and again, and each wait is for nothing.
#ifndef TARN_TESTS_SIM_SPIN_WATCH_H_
#define TARN_TESTS_SIM_SPIN_WATCH_H_

#include <cstdint>

#include "tests/sim/failure.h"
#include "tests/sim/scheduler.h"

namespace tarn_sim {

// Sees the waits for sockets and what moves through them. An error or a hang-up that lasts ends up
// to a hundred waits a second, and each of them may come with a second look; a signal may end any.
class SpinWatch {
 public:
  // Something has been sent, read or accepted.
  void moved() { ++moves_; }

  // A wait begins. Breaks the run off when that is one too many.
  void waiting(uint64_t now_ns) {
    if (now_ns - since_ns_ >= kNsPerSecond) *this = SpinWatch(now_ns);
    if (++waits_ <= kMostWaits + kWaitsPerMove * moves_) return;
    fail("a thread spins: {} waits for sockets within a second, in which {} things moved", waits_,
         moves_);
  }

  SpinWatch() = default;

 private:
  static constexpr uint64_t kMostWaits = 2000;
  static constexpr uint64_t kWaitsPerMove = 8;

  explicit SpinWatch(uint64_t since_ns) : since_ns_(since_ns) {}

  uint64_t since_ns_ = 0;
  uint64_t waits_ = 0;
  uint64_t moves_ = 0;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_SPIN_WATCH_H_
