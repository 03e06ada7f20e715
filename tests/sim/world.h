// World: what the stand-ins for the system's calls work on.
#ifndef TARN_TESTS_SIM_WORLD_H_
#define TARN_TESTS_SIM_WORLD_H_

#include <cstdint>
#include <set>

#include "tests/sim/fake_network.h"
#include "tests/sim/locks.h"
#include "tests/sim/scheduler.h"
#include "tests/sim/trace.h"

namespace tarn_sim {

// One simulated run: scheduler, locks, network, clocks and trace. While it lives, the wrapped calls
// of this process mean it; before and after, they fail. There is one at a time.
class World {
 public:
  // The wall clock starts at `wall_ms` since the epoch.
  World(Random random, Preemption preemption, uint64_t wall_ms, bool printing);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // Requires: there is one.
  static World& get() { return *current_; }

  Scheduler& scheduler() { return scheduler_; }
  Locks& locks() { return locks_; }
  FakeNetwork& network() { return network_; }
  const FakeNetwork& network() const { return network_; }
  Trace& trace() { return trace_; }

  // An event of the running task.
  template <typename... Args>
  void event(fmt::format_string<const Args&...> format, const Args&... args) {
    trace_.event(scheduler_.now(), scheduler_.own_name(), format, args...);
  }

  // Tasks on which timers run: the worker, and whoever calls tarn_update() meanwhile.
  bool runs_timers() const { return timer_tasks_.count(scheduler_.self()) != 0; }
  void set_runs_timers(TaskId task, bool runs);
  // The running task is in a tarn_update() whose callbacks leave it in this share of cases.
  void set_leave_share(double share) {
    leaver_ = scheduler_.self();
    leave_share_ = share;
  }
  // Draws, whether a callback is to leave the update that it is called from.
  bool leaves_update(Random& random) const {
    return leave_share_ > 0 && leaver_ == scheduler_.self() && random.chance(leave_share_);
  }

  // The wall clock, in microseconds since the epoch.
  uint64_t wall_us() const {
    return static_cast<uint64_t>(wall_offset_us_) + scheduler_.now() / kNsPerUs;
  }
  // The library's tick.
  uint32_t tick() const { return static_cast<uint32_t>((wall_us() + 200) / 1000); }
  // Sets the wall clock forward or back.
  void step_wall(int64_t ms);
  // How long timers may stand still: until the wall clock is where it has been before, and as long
  // as the worker sleeps at most when it has computed its sleep before a step.
  uint64_t timer_lag_ns() const;
  // Whether the wall clock has shown a later time before.
  bool clock_is_behind_itself() const { return furthest_wall_us_ > wall_us(); }
  // Whether the tick has begun again at 0 in this run.
  bool tick_has_wrapped() const;

 private:
  static World* current_;

  Scheduler scheduler_;
  Locks locks_;
  FakeNetwork network_;
  Trace trace_;
  int64_t wall_offset_us_;
  const uint64_t first_wall_us_;
  std::set<TaskId> timer_tasks_;
  TaskId leaver_ = 0;
  double leave_share_ = 0;
  uint64_t furthest_wall_us_ = 0;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_WORLD_H_
