// TarnThread: its timers, stepped with a clock that stands still.
#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

#include "src/tarn_thread.h"
#include "tests/support/kit_worker.h"
#include "tests/support/session_fixture.h"
#include "tests/support/virtual_clock.h"

using oxutils::Function;
using tarn_test::nothing;
using tarn_test::worker_turn;

namespace {

// Counts its runs and remembers the thread of the last.
class Count {
 public:
  Function function() { return Function(this, &Count::run); }
  int take() {
    const std::lock_guard<std::mutex> hold(guard_);
    const int count = count_;
    count_ = 0;
    return count;
  }
  pthread_t last_thread() {
    const std::lock_guard<std::mutex> hold(guard_);
    return last_thread_;
  }

 private:
  void run() {
    const std::lock_guard<std::mutex> hold(guard_);
    ++count_;
    last_thread_ = pthread_self();
  }
  std::mutex guard_;
  int count_ = 0;
  pthread_t last_thread_{};
};

// Holds the worker up inside a timer, and writes down what runs afterwards.
struct Steps {
  explicit Steps(std::vector<int>* to) : order(to) {}
  void block() {
    inside.post();
    go_on.wait();
  }
  void note(int step) { order->push_back(step); }
  std::vector<int>* order;
  oxutils::sem inside;
  oxutils::sem go_on;
};

class WorkerTimers : public ::testing::Test {
 protected:
  WorkerTimers() { worker_turn(); }
  void SetUp() override { TARN_SKIP_UNLESS_WORKER_IS_FRESH(history_); }
  ~WorkerTimers() override {
    for (const int id : ids_) worker().cancel_timer(id);
    worker_turn();
  }
  TarnThread& worker() { return *TarnThread::instance(); }
  int keep(int id) {
    ids_.push_back(id);
    return id;
  }
  // Runs within the next `ms`. The first turn files what was added: a timer's delay counts for the
  // queue from there.
  int runs_in(int ms) {
    worker_turn();
    count_.take();
    clock_.advance_ms(ms);
    worker_turn();
    return count_.take();
  }

  tarn_test::WorkerHistory history_;
  tarn_test::VirtualClock clock_;
  tarn_test::RunningWorker running_;
  Count count_;

 private:
  std::vector<int> ids_;
};

TEST_F(WorkerTimers, RunEveryRepeats) {
  keep(worker().run_every(40, count_.function()));
  EXPECT_EQ(runs_in(39), 0);
  EXPECT_EQ(runs_in(1), 1);
  EXPECT_EQ(runs_in(40), 1);
  EXPECT_EQ(runs_in(120), 3);
}

TEST_F(WorkerTimers, RunEveryOf0RunsOnce) {
  keep(worker().run_every(0, count_.function()));
  EXPECT_EQ(runs_in(2), 1);
  EXPECT_EQ(runs_in(1000), 0);
}

TEST_F(WorkerTimers, RunAfterRunsOnce) {
  keep(worker().run_after(40, count_.function()));
  EXPECT_EQ(runs_in(40), 0);
  EXPECT_EQ(runs_in(1), 1);
  EXPECT_EQ(runs_in(1000), 0);
}

TEST_F(WorkerTimers, RunAtRunsAfterThatTick) {
  keep(worker().run_at(static_cast<int>(clock_.now_ms()) + 40, count_.function()));
  EXPECT_EQ(runs_in(40), 0);
  EXPECT_EQ(runs_in(1), 1);
}

TEST_F(WorkerTimers, RunAtATickGoneByRunsSoon) {
  keep(worker().run_at(static_cast<int>(clock_.now_ms()) - 500, count_.function()));
  EXPECT_EQ(runs_in(1), 0);
  EXPECT_EQ(runs_in(1), 1);
}

TEST_F(WorkerTimers, RunAtTakesATickAboveTheSignedRange) {
  clock_.set_ms(4'000'000'000);
  worker_turn();
  const auto tick = static_cast<unsigned>(clock_.now_ms()) + 40;
  keep(worker().run_at(static_cast<int>(tick), count_.function()));
  EXPECT_EQ(runs_in(40), 0);
  EXPECT_EQ(runs_in(1), 1);
}

TEST_F(WorkerTimers, RunOnTheWorker) {
  keep(worker().run_after(10, count_.function()));
  ASSERT_EQ(runs_in(11), 1);
  EXPECT_EQ(count_.last_thread(), worker().get_tid());
}

TEST_F(WorkerTimers, ReturnIdsInOrder) {
  const int first = keep(worker().run_after(100, count_.function()));
  EXPECT_EQ(keep(worker().run_every(100, count_.function())), first + 1);
  EXPECT_EQ(keep(worker().run_at(0, count_.function())), first + 2);
}

TEST_F(WorkerTimers, CanBeCancelled) {
  const int once = worker().run_after(40, count_.function());
  const int often = worker().run_every(40, count_.function());
  worker().cancel_timer(once);
  worker().cancel_timer(often);
  worker_turn();
  EXPECT_EQ(runs_in(200), 0);
}

TEST_F(WorkerTimers, WakeTheWorkerThatSleepsLonger) {
  // In real time: the worker has just gone to sleep for up to ten seconds.
  keep(worker().run_after(1, count_.function()));
  worker_turn();
  EXPECT_LE(worker().get_timeout(), 1);
}

TEST_F(WorkerTimers, ReportTheTimeout) {
  keep(worker().run_every(70, count_.function()));
  worker_turn();
  EXPECT_EQ(worker().get_timeout(), 70);
  EXPECT_EQ(tarn_check_update_ms(), 70);
  clock_.advance_ms(30);
  worker_turn();
  EXPECT_EQ(worker().get_timeout(), 40);
}

TEST_F(WorkerTimers, SurviveASecondInit) {
  keep(worker().run_every(40, count_.function()));
  tarn_init();
  EXPECT_EQ(runs_in(40), 1);
}

TEST_F(WorkerTimers, KeepFiringAfterFini) {
  keep(worker().run_every(40, count_.function()));
  tarn_fini();
  EXPECT_EQ(runs_in(40), 1);
}

TEST_F(WorkerTimers, MayBeAddedAndCancelledByATimer) {
  struct Chain {
    void run() {
      TarnThread::instance()->cancel_timer(self);
      next = TarnThread::instance()->run_every(10, count->function());
    }
    Count* count;
    int self;
    int next;
  } chain{&count_, 0, 0};
  chain.self = worker().run_every(20, Function(&chain, &Chain::run));
  worker_turn();
  EXPECT_EQ(runs_in(20), 0);
  keep(chain.next);
  EXPECT_EQ(runs_in(10), 1);
  EXPECT_EQ(runs_in(20), 2);
}

TEST_F(WorkerTimers, MayHandOverAndWaitOnTheWorker) {
  struct Nested {
    void run() {
      TarnThread::instance()->run(count->function());
      TarnThread::instance()->wait(count->function());
      inline_runs = count->take();
    }
    Count* count;
    int inline_runs;
  } nested{&count_, 0};
  keep(worker().run_after(10, Function(&nested, &Nested::run)));
  worker_turn();
  clock_.advance_ms(11);
  worker_turn();
  EXPECT_EQ(nested.inline_runs, 2);
}

TEST_F(WorkerTimers, UpdateFromATimerReturnsAtOnce) {
  struct Recursive {
    void run() {
      ++depth;
      deepest = depth > deepest ? depth : deepest;
      TarnThread::instance()->update();
      tarn_update();
      --depth;
    }
    int depth;
    int deepest;
  } recursive{0, 0};
  keep(worker().run_every(10, Function(&recursive, &Recursive::run)));
  clock_.advance_ms(55);
  worker_turn();
  EXPECT_EQ(recursive.deepest, 1);
}

TEST_F(WorkerTimers, RunAfterTheCallsOfTheirTurn) {
  std::vector<int> order;
  Steps steps{&order};
  worker().run_after(1, Function(&steps, &Steps::block));
  keep(worker().run_after(20, Function(&steps, &Steps::note, 2)));
  worker_turn();
  clock_.advance_ms(2);
  worker().run(Function(nothing));
  steps.inside.wait();  // that turn has read the clock
  clock_.advance_ms(20);
  worker().run(Function(&steps, &Steps::note, 1));
  steps.go_on.post();
  worker_turn();
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

// The worker may still be in the turn that filed the timer; after that it sleeps.
TEST_F(WorkerTimers, UpdateRunsThemOnTheCallingThread) {
  keep(worker().run_every(1000, count_.function()));
  worker_turn();
  bool ran_here = false;
  for (int attempt = 0; attempt < 1000 && !ran_here; ++attempt) {
    clock_.advance_ms(1000);
    worker().update();
    ran_here = pthread_equal(count_.last_thread(), pthread_self()) != 0;
    std::this_thread::yield();
  }
  EXPECT_TRUE(ran_here);
}

// The worker takes no call before the update is over.
TEST_F(WorkerTimers, WaitInsideAnUpdateRunsTheCallThere) {
  struct Waiter {
    void run() {
      if (pthread_equal(here, pthread_self()) == 0) return;
      TarnThread::instance()->wait(Function(this, &Waiter::called));
    }
    void called() { ran_here = pthread_equal(here, pthread_self()) != 0; }
    pthread_t here = pthread_self();
    bool ran_here = false;
  } waiter;
  keep(worker().run_every(1000, Function(&waiter, &Waiter::run)));
  worker_turn();
  EXPECT_TRUE(tarn_test::wait_until([&] {
    clock_.advance_ms(1000);
    worker().update();
    return waiter.ran_here;
  }));
}

// In real time: the worker has gone to sleep for ten seconds.
TEST_F(WorkerTimers, UpdateThatIsLeftHasTheWorkerRunTheRestAtOnce) {
  struct Leaver {
    void run() {
      if (pthread_equal(leaves, pthread_self()) != 0) throw 1;
    }
    pthread_t leaves = pthread_self();
  } leaver;
  keep(worker().run_every(10'000, Function(&leaver, &Leaver::run)));
  keep(worker().run_every(10'000, count_.function()));
  worker_turn();
  EXPECT_TRUE(tarn_test::wait_until([this] {
    count_.take();
    clock_.advance_ms(10'000);
    try {
      worker().update();
      return false;  // the worker is still in the turn that filed them
    } catch (int) {
      return true;
    }
  }));
  EXPECT_TRUE(tarn_test::wait_until([this] { return count_.take() > 0; }, 5000));
}

TEST_F(WorkerTimers, UpdateBesideTheWorkerRunsEachTimerOnce) {
  for (int i = 0; i < 300; ++i) keep(worker().run_after(10, count_.function()));
  worker_turn();
  clock_.advance_ms(11);
  worker().run(Function(nothing));
  for (int i = 0; i < 20; ++i) worker().update();
  worker_turn();
  EXPECT_EQ(count_.take(), 300);
}

}  // namespace
