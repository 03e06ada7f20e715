// TimerModel: which timer runs when, told with lists that are searched from end to end.
#ifndef TARN_TESTS_FUZZ_SUPPORT_TIMER_MODEL_H_
#define TARN_TESTS_FUZZ_SUPPORT_TIMER_MODEL_H_

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <map>
#include <memory>
#include <vector>

namespace tarn_fuzz {

// Goes along with a real queue: whoever runs a pass of the queue brackets it with begin_pass() and
// end_pass(), or leave_pass() when a timer's function has left it, and reports each timer that runs
// meanwhile to took_place(). The clock may go elsewhere inside a pass. Ticks are milliseconds that
// wrap at 32 bits.
class TimerModel {
 public:
  explicit TimerModel(uint32_t now) : now_(now), last_tick_(now) {}

  void set_now(uint32_t now) { now_ = now; }

  // On the queue's own thread, the change takes place at once; from elsewhere, in drain().
  void add(int id, int delay, int interval, bool on_own_thread);
  void cancel(int id, bool on_own_thread);
  void drain();

  void begin_pass();
  // False when it is not this timer's turn.
  bool took_place(int id);
  // False when a timer that is due has not run.
  bool end_pass();
  void leave_pass();

  int timeout() const;
  // Timers that are filed or on their way. Between passes.
  size_t live() const;
  bool has_periodic() const { return !index_.empty(); }

 private:
  struct Timer {
    int id;
    uint32_t expiration;
    int interval;
    int delay;
    bool is_removed;
  };
  using TimerPtr = std::shared_ptr<Timer>;
  struct Change {
    TimerPtr added;  // or, if there is none, the id to cancel
    int cancelled;
  };

  void file(const TimerPtr& timer);
  void apply_cancel(int id);
  void take_due();
  void end_one_shots();
  TimerPtr next_periodic();
  void requeue_running();
  bool is_next_one_shot(int id);

  uint32_t now_;
  uint32_t pass_now_;               // when the pass began
  std::vector<Change> changes_;     // on their way to the queue's thread
  std::map<int, TimerPtr> on_way_;  // added among them
  std::vector<TimerPtr> one_shots_;
  std::map<int, std::deque<TimerPtr>> periodic_;  // by interval
  std::map<int, TimerPtr> index_;                 // periodic ones that can be cancelled

  uint32_t last_tick_;
  int one_shot_timeout_ = 10000;
  int periodic_timeout_ = 10000;

  // The pass that is under way.
  std::vector<TimerPtr> due_;
  bool one_shots_done_ = true;
  bool periodic_begun_ = false;
  int cursor_ = 0;    // interval that is being served
  TimerPtr running_;  // periodic, still at the front of its queue
  int pass_timeout_ = 0;
};

}  // namespace tarn_fuzz

#endif  // TARN_TESTS_FUZZ_SUPPORT_TIMER_MODEL_H_
