// TryFlag: lets in one at a time, and nobody waits.
#ifndef TARN_SRC_TRY_FLAG_H_
#define TARN_SRC_TRY_FLAG_H_

#include <atomic>

// For what can be done without as well. Any thread. What happens inside is seen by whoever enters
// next. `Atomic` is std::atomic<bool>, or what stands in for it in a test.
template <typename Atomic = std::atomic<bool>>
class TryFlag {
 public:
  // Inside for as long as it lives, unless somebody was when it came.
  class Entry {
   public:
    explicit Entry(TryFlag& flag)
        : entered_(flag.entered_),
          is_inside_(!entered_.exchange(true, std::memory_order_acquire)) {}
    ~Entry() {
      if (is_inside_) entered_.store(false, std::memory_order_release);
    }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

    explicit operator bool() const { return is_inside_; }

   private:
    Atomic& entered_;
    const bool is_inside_;
  };

 private:
  Atomic entered_{false};
};

#endif  // TARN_SRC_TRY_FLAG_H_
