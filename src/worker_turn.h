// WorkerTurn: who may run the worker's timers.
#ifndef TARN_SRC_WORKER_TURN_H_
#define TARN_SRC_WORKER_TURN_H_

#include <atomic>

// One thread at a time: the worker, which waits for the turn, or any other, which does without when
// somebody has it. A turn that ends while the worker waits is handed to it, so that a thread which
// takes one after the other cannot keep the worker off.
//
// `Event` is what the worker sleeps on. Set() wakes it, also when it goes to sleep later; Wait(-1)
// sleeps until then, and may return for other reasons. `Atomic` is what the state is kept in.
template <typename Event, template <typename> class Atomic = std::atomic>
class WorkerTurn {
 public:
  // Has the turn, or does not, and ends it when it goes, however that comes about.
  class [[nodiscard]] Guard {
   public:
    ~Guard() {
      if (turn_ != nullptr) turn_->end();
    }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

    explicit operator bool() const { return turn_ != nullptr; }

   private:
    friend class WorkerTurn;
    explicit Guard(WorkerTurn* turn) : turn_(turn) {}

    WorkerTurn* const turn_;
  };

  explicit WorkerTurn(Event& event) : event_(event) {}
  WorkerTurn(const WorkerTurn&) = delete;
  WorkerTurn& operator=(const WorkerTurn&) = delete;

  // Worker only. Waits while another thread has the turn. Requires: the worker has not got it.
  Guard begin() {
    while (!try_take()) {
      State expected = kTaken;
      if (state_.compare_exchange_strong(expected, kTakenWorkerWaits, std::memory_order_relaxed)) {
        while (state_.load(std::memory_order_acquire) != kHandedToWorker) event_.Wait(-1);
        break;
      }
    }
    return Guard(this);
  }

  // Without the turn while somebody has it, be it the calling thread, or while the worker waits.
  Guard try_begin() { return Guard(try_take() ? this : nullptr); }

 private:
  enum State : int {
    kFree,
    kTaken,
    kTakenWorkerWaits,  // by another thread
    kHandedToWorker,    // which has it from now on, awake or not
  };

  bool try_take() {
    State expected = kFree;
    return state_.compare_exchange_strong(expected, kTaken, std::memory_order_acquire);
  }

  // Release: what this turn did comes before the next one, whoever takes that.
  void end() {
    State expected = kTaken;
    if (state_.compare_exchange_strong(expected, kFree, std::memory_order_release)) return;
    if (expected == kHandedToWorker) {
      state_.store(kFree, std::memory_order_release);
    } else {
      state_.store(kHandedToWorker, std::memory_order_release);
      event_.Set();
    }
  }

  Event& event_;
  Atomic<State> state_{kFree};
};

#endif  // TARN_SRC_WORKER_TURN_H_
