// CallQueue: functions on their way to a thread.
#ifndef TARN_SRC_CALL_QUEUE_H_
#define TARN_SRC_CALL_QUEUE_H_

#include <atomic>
#include <utility>
#include <vector>

#include "oxutils/callback.h"
#include "oxutils/mutex.h"

// Any thread appends; the thread that owns the queue takes everything at once and runs it. The lock
// is held to append or to swap, never while a function runs. Whoever appends wakes the owner after
// that, so that an owner which finds nothing without the lock comes again.
class CallQueue {
 public:
  // False, and `f` as it was, once the queue has been closed.
  bool push(oxutils::Function& f) OX_EXCLUDES(lock_) {
    const oxutils::scoped_lock hold(lock_);
    if (closed_) return false;
    calls_.push_back(std::move(f));
    has_calls_.store(true, std::memory_order_release);
    return true;
  }

  // Runs what has been appended so far, in order; later arrivals belong to the next time. False
  // when there was nothing.
  bool run_all() OX_EXCLUDES(lock_) {
    if (!has_calls_.load(std::memory_order_acquire)) return false;
    for (oxutils::Function& each : take_all()) {
      // Released one by one, not as a batch: what a function keeps alive goes right after it has
      // run.
      const oxutils::Function f = std::move(each);
      f();
    }
    return true;
  }

  void open() OX_EXCLUDES(lock_) {
    const oxutils::scoped_lock hold(lock_);
    closed_ = false;
  }

  // Nobody will take from the queue any more, but for one last run_all().
  void close() OX_EXCLUDES(lock_) {
    const oxutils::scoped_lock hold(lock_);
    closed_ = true;
  }

 private:
  std::vector<oxutils::Function> take_all() OX_EXCLUDES(lock_) {
    std::vector<oxutils::Function> batch;
    const oxutils::scoped_lock hold(lock_);
    batch.swap(calls_);
    has_calls_.store(false, std::memory_order_relaxed);
    return batch;
  }

  oxutils::mutex lock_;
  std::vector<oxutils::Function> calls_ OX_GUARDED_BY(lock_);
  std::atomic<bool> has_calls_{false};  // written under lock_
  bool closed_ OX_GUARDED_BY(lock_) = false;
};

#endif  // TARN_SRC_CALL_QUEUE_H_
