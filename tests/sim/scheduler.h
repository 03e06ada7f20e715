// Scheduler: the threads of a simulated run, one at a time, under a virtual clock.
#ifndef TARN_TESTS_SIM_SCHEDULER_H_
#define TARN_TESTS_SIM_SCHEDULER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/sim/fiber.h"
#include "tests/sim/random.h"

namespace tarn_sim {

constexpr uint64_t kNsPerUs = 1'000;
constexpr uint64_t kNsPerMs = 1'000'000;
constexpr uint64_t kNsPerSecond = 1'000'000'000;
constexpr uint64_t kNever = UINT64_MAX;

using TaskId = size_t;

// How unkind the scheduler is.
struct Preemption {
  double switch_share = 0;  // of the points at which another thread goes on
  double stall_share = 0;   // of the points at which the thread is not run for a while
  uint64_t longest_stall_ns = 0;
  uint64_t cost_ns = 0;       // that pass at each point
  double spurious_share = 0;  // of the waits that end for no reason
};

// Threads are tasks, each a fiber of its own. A task runs until it blocks, ends or comes to a point
// where the seed has another one go on. Time passes only when every task waits, but for the small
// cost of each point. The thread that makes the scheduler is task 0; there is one scheduler at a
// time.
class Scheduler {
 public:
  Scheduler(Random random, Preemption preemption);
  ~Scheduler();
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  // The scheduler of this process, or null.
  static Scheduler* running() { return running_; }

  TaskId spawn(std::string name, std::function<void()> body);
  void join(TaskId task);
  TaskId self() const { return current_; }
  const std::string& name(TaskId task) const { return tasks_[task]->name; }
  void set_name(TaskId task, std::string name) { tasks_[task]->name = std::move(name); }
  const std::string& own_name() const { return tasks_[current_]->name; }

  // Another task may go on here.
  void point();
  // Another task goes on here if there is one.
  void yield();
  // Waits for wake(on), until `deadline` at the latest. False when the deadline has come.
  bool block(const void* on, uint64_t deadline_ns);
  void wake(const void* on);
  void sleep(uint64_t ns) { block(nullptr, now_ + ns); }

  // Time passes, while nobody else goes on.
  void spend(uint64_t ns) { now_ += ns; }

  // Nanoseconds since the start.
  uint64_t now() const { return now_; }
  uint64_t points() const { return points_; }
  // Draws, so that a wait may end for no reason.
  bool is_spurious() { return random_.chance(preemption_.spurious_share); }
  // From now on no thread is held up; they still take turns.
  void end_stalls() { preemption_.stall_share = 0; }
  const Preemption& preemption() const { return preemption_; }

  // Called whenever another task goes on.
  void set_observer(std::function<void()> observer) { observer_ = std::move(observer); }

  // Whether the running task is inside the library. Tasks begin outside.
  bool in_library() const { return tasks_[current_]->in_library; }
  void set_in_library(bool inside) { tasks_[current_]->in_library = inside; }

  // The running task's errno.
  int* error_number() { return &tasks_[current_]->error_number; }

 private:
  enum class State { kRunnable, kBlocked, kEnded };
  struct Task {
    std::string name;
    std::unique_ptr<Fiber> fiber;
    State state = State::kRunnable;
    const void* waits_on = nullptr;
    uint64_t deadline = kNever;
    bool woken = false;
    bool in_library = false;
    int error_number = 0;
  };

  void run_task(const std::function<void()>& body);
  // The task to run next; lets time pass until there is one.
  TaskId choose();
  void go_on_with(TaskId next);
  void check_progress();
  [[noreturn]] void report_deadlock() const;

  static Scheduler* running_;

  Random random_;
  Preemption preemption_;
  std::vector<std::unique_ptr<Task>> tasks_;
  std::vector<TaskId> runnable_;  // choose()'s own
  TaskId current_ = 0;
  uint64_t now_ = 0;
  uint64_t points_ = 0;
  uint64_t stuck_at_ = 0;           // a time, and
  uint64_t points_when_stuck_ = 0;  // the points passed when the clock came there
  std::function<void()> observer_;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_SCHEDULER_H_
