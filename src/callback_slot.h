// CallbackSlot: an application callback and its user pointer, always seen as a pair.
#ifndef TARN_SRC_CALLBACK_SLOT_H_
#define TARN_SRC_CALLBACK_SLOT_H_

#include <sched.h>

#include <atomic>

// Written and read on any thread without a lock: a reader gets the pair of one set(), never one old
// and one new. `Fn` is a function pointer type, `Atomic` what the parts are kept in.
template <typename Fn, template <typename> class Atomic = std::atomic>
class CallbackSlot {
 public:
  struct Pair {
    Fn function;
    void* user;
  };

  void set(Fn function, void* user) {
    const unsigned int version = begin_write();
    // Release: whoever sees a new value also sees that a write has begun.
    function_.store(function, std::memory_order_release);
    user_.store(user, std::memory_order_release);
    version_.store(version + 1, std::memory_order_release);
  }

  Pair get() const {
    for (;; sched_yield()) {
      const unsigned int before = version_.load(std::memory_order_acquire);
      const Pair pair{function_.load(std::memory_order_acquire),
                      user_.load(std::memory_order_acquire)};
      const unsigned int after = version_.load(std::memory_order_relaxed);
      if (before == after && !is_writing(before)) return pair;
    }
  }

 private:
  static bool is_writing(unsigned int version) { return version % 2 != 0; }

  // Makes the version odd, which keeps readers and other writers off; returns it.
  unsigned int begin_write() {
    for (;; sched_yield()) {
      unsigned int version = version_.load(std::memory_order_relaxed);
      if (is_writing(version)) continue;
      if (version_.compare_exchange_weak(version, version + 1, std::memory_order_acquire)) {
        return version + 1;
      }
    }
  }

  Atomic<unsigned int> version_{0};
  Atomic<Fn> function_{nullptr};
  Atomic<void*> user_{nullptr};
};

#endif  // TARN_SRC_CALLBACK_SLOT_H_
