// TimerInteger, TarnTimer and TarnTimerQueue: the timers of one thread.
#ifndef TARN_SRC_TARN_TIMER_H_
#define TARN_SRC_TARN_TIMER_H_

#include <stdint.h>

#include <atomic>
#include <map>
#include <set>
#include <unordered_map>
#include <utility>

#include "oxutils/callback.h"
#include "oxutils/mutex.h"
#include "oxutils/relaxed.h"
#include "oxutils/ring.h"
#include "oxutils/smart_ptr/shared_ptr.h"
#include "src/tarn_thread_base.h"

// Generates timer ids: 1, 2, 3, ... on whatever thread. Wraps after 4294967295 without a check.
// Trivially destroyed, so that it serves threads that outlive the exit handlers.
class TimerInteger {
 public:
  unsigned int add() { return count_.fetch_add(1, std::memory_order_relaxed) + 1; }

 private:
  std::atomic<unsigned int> count_{0};
};

// One timer. Ticks are milliseconds that wrap at 32 bits. Shared between the queue and the
// functions that carry it to the queue's thread; its mutex serialises run() and remove().
class TarnTimer {
 public:
  TarnTimer(int id, oxutils::Function func, unsigned int expiration, int interval);
  // Draws a new id.
  TarnTimer(oxutils::Function func, unsigned int expiration, int interval);

  static oxutils::shared_ptr<TarnTimer> create_timer(int id, oxutils::Function func, int expiration,
                                                     int interval);
  static oxutils::shared_ptr<TarnTimer> create_timer(oxutils::Function func, int expiration,
                                                     int interval);

  int id() const { return id_; }
  unsigned int expiration() const { return expiration_; }
  int interval() const { return interval_; }
  // An interval of 0 or less makes a one-shot timer.
  bool repeat() const { return repeat_; }

  // Moves a repeating timer's expiration on by one interval; sets that of another to 0.
  void restart();
  // Calls the function unless the timer was removed. Requires: a function.
  void run();
  // From now on run() does nothing. A timer may remove itself from inside its function: its own
  // lock then refuses, and the flag is set all the same.
  void remove();
  // remove() without the lock, on the thread that runs the timers. No run can be under way on
  // another one, and to wait for this timer's lock inside another timer's function would tie the
  // locks that the application takes in both functions to each other.
  void remove_in_loop() { removed_ = true; }
  // Reads the flag without the lock.
  bool is_removed() const { return removed_; }
  // What run() runs, or null.
  const oxutils::CallbackBase* callback() const { return func_.get(); }

  static TimerInteger s_idCreated_;

 private:
  // What a turn touches comes first, on one cache line or two.
  oxutils::mutex mutex_;
  unsigned int expiration_;
  const int interval_;  // ms
  const bool repeat_;
  oxutils::relaxed<bool> removed_{false};
  const int id_;
  const oxutils::Function func_;
};

// The timers of `owner`. add_timer and cancel_timer on any thread: they hand the change to the
// owner with its run(). Everything else belongs to the owner's thread, or to whoever the owner lets
// run its timers meanwhile; so the containers need no lock. The timeouts may be read on any thread.
class TarnTimerQueue {
 public:
  explicit TarnTimerQueue(TarnThreadBase* owner);

  // Files `func` to run first after `delay` ms (at least 1), then every `interval` ms; only once
  // for an interval of 0 or less. Returns the timer's id.
  int add_timer(oxutils::Function func, int delay, int interval);
  // An unknown or finished id is ignored. On another thread the timer may still run once.
  void cancel_timer(int id);

  // Owner's thread only.
  void addTimerInLoop(oxutils::shared_ptr<TarnTimer> timer, int delay);
  // Owner's thread only.
  void cancelInLoop(int id);

  // Milliseconds until the queue has to be processed again, 0 to 10000.
  int get_timeout() const;

  // Owner's thread only. Runs what is due: one-shot timers, then the periodic ones in ascending
  // order of interval, each as often as its periods have passed. When a function throws, or its
  // thread is cancelled in it, its run counts; the others run in the next pass, due at once.
  void process_timers();
  // Owner's thread only. The one-shot timers among it.
  void process_timers_level_0(unsigned int now);

  // Wall clock in milliseconds, truncated to 32 bits.
  static unsigned int cur_tick();

 private:
  using TimerPtr = oxutils::shared_ptr<TarnTimer>;
  using OneShot = std::pair<unsigned int, TimerPtr>;
  using Fifo = oxutils::ring<TimerPtr>;

  // By expiration as an unsigned number, then by address.
  struct Earlier {
    bool operator()(const OneShot& a, const OneShot& b) const {
      return a.first != b.first ? a.first < b.first : a.second.get() < b.second.get();
    }
  };
  using OneShots = std::set<OneShot, Earlier>;

  bool on_owner_thread();
  TimerPtr take_unfiled(int id) OX_EXCLUDES(unfiled_lock_);
  OneShots take_due(unsigned int now);
  void run_due(unsigned int now);
  int one_shots_due_in(unsigned int now) const;
  // Runs the due timers of one interval; returns the time to the next, 10000 when there is none.
  int process_fifo(Fifo& fifo, unsigned int now);

  TarnThreadBase* const owner_;
  OneShots one_shots_;
  oxutils::relaxed<int> one_shot_timeout_;  // ms, counted from last_tick_; below 0 when overdue
  unsigned int last_tick_;                  // when the one-shot timers were last examined
  std::map<int, Fifo> periodic_;            // by interval; members advance alike, so stay sorted
  oxutils::relaxed<int> periodic_timeout_;  // ms
  std::unordered_map<int, TimerPtr> periodic_index_;  // by id, for cancelling

  // Added on other threads and on their way to the owner, whose own cancellations run at once and
  // may overtake them.
  oxutils::mutex unfiled_lock_;
  std::unordered_map<int, TimerPtr> unfiled_ OX_GUARDED_BY(unfiled_lock_);
};

#endif  // TARN_SRC_TARN_TIMER_H_
