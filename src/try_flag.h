// TryFlag: lets in one at a time, and nobody waits.
#ifndef TARN_SRC_TRY_FLAG_H_
#define TARN_SRC_TRY_FLAG_H_

#include <atomic>

// For what can be done without as well. Any thread. What happens between enter() and leave() is
// seen by whoever enters next. `Atomic` is std::atomic<bool>, or what stands in for it in a test.
template <typename Atomic = std::atomic<bool>>
class TryFlag {
 public:
  // False while somebody is inside.
  bool enter() { return !entered_.exchange(true, std::memory_order_acquire); }
  // Requires: this thread has entered.
  void leave() { entered_.store(false, std::memory_order_release); }

  // Enters for as long as it lives, if it can.
  class Entry {
   public:
    explicit Entry(TryFlag& flag) : flag_(flag), is_inside_(flag.enter()) {}
    ~Entry() {
      if (is_inside_) flag_.leave();
    }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

    explicit operator bool() const { return is_inside_; }

   private:
    TryFlag& flag_;
    const bool is_inside_;
  };

 private:
  Atomic entered_{false};
};

#endif  // TARN_SRC_TRY_FLAG_H_
