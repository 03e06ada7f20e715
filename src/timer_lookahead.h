// TimerLookahead: has what the next timers of a queue will need loaded into the cache.
#ifndef TARN_SRC_TIMER_LOOKAHEAD_H_
#define TARN_SRC_TIMER_LOOKAHEAD_H_

#include <stddef.h>

#include "oxutils/ring.h"
#include "oxutils/smart_ptr/shared_ptr.h"
#include "src/tarn_timer.h"

// With thousands of idle sessions a pass over their timers would wait for memory most of the time.
// A timer leads to its callback, and that to the object it is bound to; each of the three is begun
// to be loaded while the one before it arrives, a few timers ahead. One pass over one queue, on the
// thread of that; the queue may grow at its end meanwhile.
class TimerLookahead {
 public:
  using Fifo = oxutils::ring<oxutils::shared_ptr<TarnTimer>>;

  // Before the front timer runs. At the start of a pass this catches up on the ones in front.
  void look(const Fifo& fifo) {
    if (fifo.size() <= kTimers) return;  // few timers stay in the cache by themselves
    while (timers_ < kTimers) fifo[timers_++]->prefetch();
    while (callbacks_ < kCallbacks) fifo[callbacks_++]->prefetch_callback();
    while (targets_ < kTargets) fifo[targets_++]->prefetch_target();
  }

  // When the front timer has left the front.
  void step() {
    step(timers_);
    step(callbacks_);
    step(targets_);
  }

 private:
  // How far ahead of the front each of them is loaded.
  static constexpr size_t kTargets = 4;
  static constexpr size_t kCallbacks = 8;
  static constexpr size_t kTimers = 12;

  static void step(size_t& ahead) {
    if (ahead > 0) --ahead;
  }

  // As many from the front on are loaded, or on their way.
  size_t timers_ = 0;
  size_t callbacks_ = 0;
  size_t targets_ = 0;
};

#endif  // TARN_SRC_TIMER_LOOKAHEAD_H_
