// Owners for a timer queue without a worker, and timers that write down their runs.
#ifndef TARN_TESTS_SUPPORT_KIT_TIMER_OWNER_H_
#define TARN_TESTS_SUPPORT_KIT_TIMER_OWNER_H_

#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <utility>
#include <vector>

#include "oxutils/callback.h"
#include "src/tarn_thread_base.h"
#include "src/tarn_timer.h"
#include "tests/support/virtual_clock.h"

namespace tarn_test {

// What a timer queue asks of its owner; the rest of the interface does nothing.
class TimerOwner : public TarnThreadBase {
 public:
  void start() override {}
  void stop() override {}
  void wait(oxutils::Function f) override { run(f); }
  int run_every(int, oxutils::Function) override { return 0; }
  int run_after(int, oxutils::Function) override { return 0; }
  int run_at(int, oxutils::Function) override { return 0; }
  void cancel_timer(int) override {}
  int get_timeout() override { return 0; }
  void update() override {}
};

// The test's thread is the owner's thread.
class InlineOwner : public TimerOwner {
 public:
  pthread_t get_tid() override { return tid_; }
  void run(oxutils::Function f) override { f(); }

 private:
  const pthread_t tid_ = pthread_self();
};

// The test's thread is a foreign one: what is handed over waits for drain().
class DistantOwner : public TimerOwner {
 public:
  pthread_t get_tid() override { return pthread_t{}; }
  void run(oxutils::Function f) override { handed_over_.push_back(std::move(f)); }
  size_t drain() {
    std::vector<oxutils::Function> batch;
    batch.swap(handed_over_);
    for (const oxutils::Function& f : batch) f();
    return batch.size();
  }

 private:
  std::vector<oxutils::Function> handed_over_;
};

class Runs {
 public:
  // A function that writes `mark` down.
  oxutils::Function mark(int mark) { return oxutils::Function(this, &Runs::note, mark); }

  std::vector<int> take() {
    std::vector<int> taken;
    taken.swap(marks_);
    return taken;
  }

  // Runs after each mark has been written down.
  std::function<void(int mark)> on_run;

 private:
  void note(int mark) {
    marks_.push_back(mark);
    if (on_run) on_run(mark);
  }
  std::vector<int> marks_;
};

// A queue whose owner is the test's thread, on a clock that the test moves.
class TimerQueueFixture : public ::testing::Test {
 protected:
  // What runs in a pass `ms` later.
  std::vector<int> pass_after(int ms) {
    clock_.advance_ms(ms);
    queue_.process_timers();
    return runs_.take();
  }

  VirtualClock clock_;
  InlineOwner owner_;
  Runs runs_;
  TarnTimerQueue queue_{&owner_};
};

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_KIT_TIMER_OWNER_H_
