// Loading what the next timers of a queue will need into the cache.
#ifndef TARN_SRC_TIMER_LOOKAHEAD_H_
#define TARN_SRC_TIMER_LOOKAHEAD_H_

#include <stddef.h>

#include "oxutils/ring.h"
#include "oxutils/smart_ptr/shared_ptr.h"
#include "src/tarn_timer.h"

// With thousands of idle sessions a pass over their timers would wait for memory most of the time.
// A timer leads to its callback, and that to the object it is bound to; each of the three is begun
// to be loaded while the one before it arrives, a few timers ahead of the front. The first ones of
// a pass have been loaded at the end of the pass before.
class TimerLookahead {
 public:
  // Before the front timer runs.
  static void look(const oxutils::ring<oxutils::shared_ptr<TarnTimer>>& timers) {
    if (timers.size() <= kTimers) return;  // few timers stay in the cache by themselves
    load(timers[kTimers].get(), sizeof(TarnTimer));
    load(timers[kCallbacks]->callback(), kBytesOfCallback);
    const oxutils::CallbackBase* const callback = timers[kObjects]->callback();
    if (callback != nullptr) load(callback->object(), kBytesOfObject);
  }

 private:
  // How far ahead of the front each of them is loaded.
  static constexpr size_t kObjects = 4;
  static constexpr size_t kCallbacks = 8;
  static constexpr size_t kTimers = 12;

  // A callback without arguments, and the locks and flags at the beginning of an object.
  static constexpr size_t kBytesOfCallback = 48;
  static constexpr size_t kBytesOfObject = 128;

  // Begins to load `size` bytes to be written, and waits for nothing. Nothing of null. The memory
  // belongs to an object, or lies close to one.
  static void load(const void* memory, size_t size) {
    if (memory == nullptr) return;
    constexpr size_t kCacheLine = 64;
    const char* const bytes = static_cast<const char*>(memory);
    for (size_t at = 0; at < size; at += kCacheLine) __builtin_prefetch(bytes + at, 1);
    __builtin_prefetch(bytes + size - 1, 1);  // they may begin in the middle of a line
    // An effect that the compiler has to respect: it would take a function that does nothing but
    // this for one without effect, and drop the calls.
    __asm__ volatile("");
  }
};

#endif  // TARN_SRC_TIMER_LOOKAHEAD_H_
