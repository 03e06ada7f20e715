#include "tests/sim/scheduler.h"

#include <algorithm>
#include <utility>

#include "tests/sim/boundary.h"
#include "tests/sim/failure.h"

namespace tarn_sim {
namespace {

// Points at one instant after which it is clear that nobody waits for the time any more. Backlogs
// of 100,000 datagrams and more arrive at one instant, at some 20 points each.
constexpr uint64_t kPointsWithoutProgress = 50'000'000;

}  // namespace

Scheduler* Scheduler::running_ = nullptr;

Scheduler::Scheduler(Random random, Preemption preemption)
    : random_(std::move(random)), preemption_(preemption) {
  tasks_.push_back(std::make_unique<Task>());
  tasks_[0]->name = "director";
  tasks_[0]->fiber = std::make_unique<Fiber>();
  running_ = this;
}

Scheduler::~Scheduler() { running_ = nullptr; }

TaskId Scheduler::spawn(std::string name, std::function<void()> body) {
  auto task = std::make_unique<Task>();
  task->name = std::move(name);
  task->fiber = std::make_unique<Fiber>([this, body = std::move(body)] { run_task(body); });
  tasks_.push_back(std::move(task));
  return tasks_.size() - 1;
}

void Scheduler::run_task(const std::function<void()>& body) {
  begin_outside();
  body();
  Task& self = *tasks_[current_];
  self.state = State::kEnded;
  wake(&self);
  go_on_with(choose());
}

void Scheduler::join(TaskId task) {
  while (tasks_[task]->state != State::kEnded) block(tasks_[task].get(), kNever);
  tasks_[task]->fiber.reset();
}

void Scheduler::check_progress() {
  ++points_;
  if (now_ != stuck_at_) {
    stuck_at_ = now_;
    points_when_stuck_ = points_;
  } else if (points_ - points_when_stuck_ > kPointsWithoutProgress) {
    fail("no end: {} points passed at one instant", kPointsWithoutProgress);
  }
}

void Scheduler::point() {
  check_progress();
  now_ += preemption_.cost_ns;
  const double draw = random_.share();
  if (draw < preemption_.stall_share) {
    sleep(random_.between(1, preemption_.longest_stall_ns));
  } else if (draw < preemption_.stall_share + preemption_.switch_share) {
    go_on_with(choose());
  }
}

void Scheduler::yield() {
  check_progress();
  now_ += preemption_.cost_ns;
  go_on_with(choose());
}

bool Scheduler::block(const void* on, uint64_t deadline_ns) {
  check_progress();
  Task& self = *tasks_[current_];
  self.state = State::kBlocked;
  self.waits_on = on;
  self.deadline = deadline_ns;
  self.woken = false;
  go_on_with(choose());
  return self.woken;
}

void Scheduler::wake(const void* on) {
  if (on == nullptr) return;
  for (const auto& task : tasks_) {
    if (task->state != State::kBlocked || task->waits_on != on) continue;
    task->state = State::kRunnable;
    task->woken = true;
  }
}

TaskId Scheduler::choose() {
  for (;;) {
    runnable_.clear();
    uint64_t earliest = kNever;
    for (TaskId id = 0; id < tasks_.size(); ++id) {
      Task& task = *tasks_[id];
      if (task.state == State::kBlocked && task.deadline <= now_) task.state = State::kRunnable;
      if (task.state == State::kRunnable) {
        runnable_.push_back(id);
      } else if (task.state == State::kBlocked) {
        earliest = std::min(earliest, task.deadline);
      }
    }
    if (!runnable_.empty()) return runnable_[random_.between(0, runnable_.size() - 1)];
    if (earliest == kNever) report_deadlock();
    now_ = earliest;
  }
}

void Scheduler::go_on_with(TaskId next) {
  if (observer_) observer_();
  if (next == current_) return;
  Task& self = *tasks_[current_];
  current_ = next;
  self.fiber->switch_to(*tasks_[next]->fiber);
}

void Scheduler::report_deadlock() const {
  std::string waiting;
  for (const auto& task : tasks_) {
    if (task->state == State::kBlocked) waiting += " " + task->name;
  }
  fail("deadlock: all of these wait for each other for ever:{}", waiting);
}

}  // namespace tarn_sim
