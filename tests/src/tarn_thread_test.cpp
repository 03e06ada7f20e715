// TarnThread: handing calls over.
#include "src/tarn_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>

#include "tests/support/kit_death.h"
#include "tests/support/kit_worker.h"
#include "tests/support/log_capture.h"
#include "tests/support/session_fixture.h"

using oxutils::Function;
using oxutils::sem;
using tarn_test::LogCapture;
using tarn_test::nothing;
using tarn_test::wait_until;

namespace {

// A call that runs any code.
struct Call {
  explicit Call(std::function<void()> f) : code(std::move(f)) {}
  void run() { code(); }
  Function function() { return Function(this, &Call::run); }
  std::function<void()> code;
};

void wait_for(TarnThread& thread, const std::function<void()>& code) {
  Call call(code);
  thread.wait(call.function());
}

// Threads of this process with that name.
int threads_named(const std::string& name) {
  int count = 0;
  DIR* tasks = opendir("/proc/self/task");
  while (const dirent* task = readdir(tasks)) {
    std::ifstream comm(std::string("/proc/self/task/") + task->d_name + "/comm");
    std::string line;
    if (std::getline(comm, line) && line == name) ++count;
  }
  closedir(tasks);
  return count;
}

// Kept for ever, as the process's own worker is.
TarnThread& spare_thread() {
  static std::vector<TarnThread*>& kept = *new std::vector<TarnThread*>;
  kept.push_back(new TarnThread);
  return *kept.back();
}

class Worker : public ::testing::Test {
 protected:
  TarnThread& worker() { return *TarnThread::instance(); }
  void on_worker(const std::function<void()>& code) { wait_for(worker(), code); }

 private:
  tarn_test::RunningWorker running_;
};

TEST_F(Worker, RunsWhatIsHandedOverOnAThreadOfItsOwn) {
  pthread_t ran_on{};
  on_worker([&] { ran_on = pthread_self(); });
  EXPECT_NE(ran_on, pthread_self());
  EXPECT_EQ(ran_on, worker().get_tid());
}

TEST_F(Worker, KnowsItsThread) {
  bool there = false;
  on_worker([&] { there = worker().is_in_thread(); });
  EXPECT_TRUE(there);
  EXPECT_FALSE(worker().is_in_thread());
}

TEST_F(Worker, IsNamed) {
  on_worker(nothing);
  EXPECT_GE(threads_named("tarn_thread"), 1);
}

TEST_F(Worker, RunReturnsAndTheCallFollows) {
  sem ran;
  worker().run(Function(&ran, &sem::post));
  ran.wait();
}

TEST_F(Worker, RunsCallsInOrderOfArrival) {
  std::vector<int> order;
  std::vector<Call> calls;
  for (int i = 0; i < 50; ++i) calls.emplace_back([&order, i] { order.push_back(i); });
  for (Call& call : calls) worker().run(call.function());
  on_worker(nothing);
  ASSERT_EQ(order.size(), 50u);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(order[static_cast<size_t>(i)], i);
}

TEST_F(Worker, RunIsInlineOnTheWorker) {
  bool ran_before_return = false;
  on_worker([&] {
    bool ran = false;
    Call inner([&] { ran = true; });
    worker().run(inner.function());
    ran_before_return = ran;
  });
  EXPECT_TRUE(ran_before_return);
}

TEST_F(Worker, WaitIsInlineOnTheWorker) {
  bool ran_before_return = false;
  on_worker([&] {
    bool ran = false;
    wait_for(worker(), [&] { ran = true; });
    ran_before_return = ran;
  });
  EXPECT_TRUE(ran_before_return);
}

TEST_F(Worker, WaitReturnsAfterTheCallHasRun) {
  for (int i = 0; i < 200; ++i) {
    bool ran = false;  // plain on purpose: wait orders the accesses
    on_worker([&] { ran = true; });
    ASSERT_TRUE(ran);
  }
}

TEST_F(Worker, CallsHandedOverDuringABatchRunAfterIt) {
  sem inside;
  sem go_on;
  std::vector<int> order;
  Call first([&] {
    inside.post();
    go_on.wait();
    order.push_back(1);
  });
  Call second([&] { order.push_back(2); });
  worker().run(first.function());
  inside.wait();
  worker().run(second.function());  // neither refused nor blocked while a call runs
  go_on.post();
  on_worker(nothing);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST_F(Worker, ReleasesACallAfterItHasRun) {
  const oxutils::shared_ptr<int> value = oxutils::make_shared<int>(1);
  worker().run(Function(
      +[](oxutils::shared_ptr<int>) {}, value));
  on_worker(nothing);
  on_worker(nothing);  // the batch of the first is gone when the second runs
  EXPECT_EQ(value.use_count(), 1u);
}

TEST_F(Worker, TakesCallsFromManyThreads) {
  constexpr int kThreads = 8;
  constexpr int kEach = 200;
  int count = 0;  // plain on purpose: only the worker changes it
  Call call([&] { ++count; });
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < kEach; ++n) {
        if (n % 10 == 0) {
          worker().wait(call.function());
        } else {
          worker().run(call.function());
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  on_worker(nothing);
  EXPECT_EQ(count, kThreads * kEach);
}

TEST_F(Worker, SecondInitChangesNothing) {
  on_worker(nothing);
  const pthread_t before = worker().get_tid();
  const int threads = threads_named("tarn_thread");
  tarn_init();
  on_worker(nothing);
  EXPECT_EQ(worker().get_tid(), before);
  EXPECT_EQ(threads_named("tarn_thread"), threads);
}

TEST_F(Worker, InitAndFiniSaySo) {
  const LogCapture log;
  tarn_init();
  EXPECT_EQ(log.count(3, "tarn init"), 1);
  tarn_fini();
  EXPECT_EQ(log.count(3, "tarn fini"), 1);
}

TEST_F(Worker, GoesOnAfterFini) {
  on_worker(nothing);
  const pthread_t before = worker().get_tid();
  for (int i = 0; i < 300; ++i) {
    tarn_fini();
    if (i % 10 == 0) on_worker(nothing);
  }
  pthread_t ran_on{};
  on_worker([&] { ran_on = pthread_self(); });
  EXPECT_EQ(ran_on, before);
}

TEST(WorkerStart, LogsItsBeginning) {
  const LogCapture log;
  TarnThread& thread = spare_thread();
  thread.start();
  thread.wait(Function(nothing));
  EXPECT_EQ(log.count(4, "thread start"), 1);
}

TEST(WorkerStart, HasNoThreadBefore) {
  TarnThread& thread = spare_thread();
  EXPECT_EQ(thread.get_tid(), pthread_t{});
  EXPECT_FALSE(thread.is_in_thread());
  thread.stop();
  EXPECT_EQ(thread.get_tid(), pthread_t{});
}

TEST(WorkerStart, CallsBeforeItRunInTheFirstTurn) {
  TarnThread& thread = spare_thread();
  std::vector<pthread_t> ran_on;
  Call call([&] { ran_on.push_back(pthread_self()); });
  thread.run(call.function());
  thread.run(call.function());
  EXPECT_TRUE(ran_on.empty());
  thread.start();
  thread.wait(Function(nothing));
  ASSERT_EQ(ran_on.size(), 2u);
  EXPECT_EQ(ran_on[0], thread.get_tid());
  EXPECT_EQ(ran_on[1], thread.get_tid());
}

TEST(WorkerStart, PendingCallsRunInOrderWhereTheyAreRun) {
  TarnThread& thread = spare_thread();
  std::vector<int> order;
  Call first([&] { order.push_back(1); });
  Call second([&] { order.push_back(2); });
  thread.run(first.function());
  thread.run(second.function());
  thread.do_pending_func();
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  thread.do_pending_func();
  EXPECT_EQ(order.size(), 2u);
}

TEST(WorkerEnd, EndsWithItsObject) {
  const LogCapture log(4);
  int before = 0;
  bool ran = false;
  {
    TarnThread thread;
    thread.start();
    wait_for(thread, [&] { ran = true; });
    before = threads_named("tarn_thread");
  }
  EXPECT_TRUE(ran);
  EXPECT_EQ(log.count(4, "thread end"), 1);
  // The system takes a moment to forget a thread that has been joined.
  EXPECT_TRUE(wait_until([before] { return threads_named("tarn_thread") == before - 1; }));
}

TEST(WorkerEnd, OneThatWasNeverStartedCanGo) {
  TarnThread* const instance = TarnThread::instance();
  { const TarnThread thread; }
  EXPECT_EQ(TarnThread::instance(), instance) << "the process's own one stays";
}

// The form of run() that an implementation brings along.
class InlineThread : public TarnThread {
 public:
  void run(Function f) override {
    ++runs;
    f();
  }
  int runs = 0;
};

TEST(WorkerWait, GoesThroughTheOverriddenRun) {
  static InlineThread& thread = *new InlineThread;
  bool ran = false;
  wait_for(thread, [&] { ran = true; });
  EXPECT_TRUE(ran);
  EXPECT_EQ(thread.runs, 1);
}

TEST(WorkerWait, FunctionCallsThenPosts) {
  sem done;
  bool ran = false;
  Call call([&] { ran = true; });
  tarn_wait_func(&done, call.function());
  EXPECT_TRUE(ran);
  done.wait();
}

#define EXPECT_NEEDS_START(statement) \
  EXPECT_ASSERTION(statement, "oxutils/smart_ptr/unique_ptr", 131, "operator->", "0L != px")

TEST(WorkerDeathTest, TimersNeedAStart) {
  EXPECT_NEEDS_START(spare_thread().run_every(10, Function(nothing)));
  EXPECT_NEEDS_START(spare_thread().run_after(10, Function(nothing)));
  EXPECT_NEEDS_START(spare_thread().run_at(10, Function(nothing)));
  EXPECT_NEEDS_START(spare_thread().cancel_timer(1));
}

TEST(WorkerDeathTest, TimeoutAndUpdateNeedAStart) {
  EXPECT_NEEDS_START(spare_thread().get_timeout());
  EXPECT_NEEDS_START(spare_thread().update());
  EXPECT_NEEDS_START(tarn_check_update_ms());
  EXPECT_NEEDS_START(tarn_update());
}

void throw_on_the_worker() {
  TarnThread& thread = spare_thread();
  thread.start();
  thread.wait(Function(+[] { throw 1; }));
}

TEST(WorkerDeathTest, ExceptionOfACallEndsTheProcess) { EXPECT_ABORT(throw_on_the_worker(), ""); }

}  // namespace
