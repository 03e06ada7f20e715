// TarnIoThread: handing calls over to the thread of the sockets.
#include "tarn_io/tarn_io_thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/net_call.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

using oxutils::Function;
using tarn_test::Call;
using tarn_test::LogCapture;
using tarn_test::wait_until;

namespace {

// The process's thread, on whose own id it has already run something.
TarnIoThread& running() {
  TarnIoThread* const thread = TarnIoThread::instance();
  wait_until([thread] { return pthread_equal(thread->get_tid(), pthread_self()) == 0; });
  return *thread;
}

bool is_on(TarnIoThread& thread) { return pthread_equal(thread.get_tid(), pthread_self()) != 0; }

// Whether what `thread` is given runs on it and not on the caller.
bool runs_calls_itself(TarnIoThread& thread) {
  const pthread_t caller = pthread_self();
  bool on_thread = false;
  Call call([&] { on_thread = is_on(thread) && pthread_equal(caller, pthread_self()) == 0; });
  thread.wait(call.function());
  return on_thread;
}

void stop_and_wait(TarnIoThread& thread) {
  const LogCapture log(3);
  thread.stop();
  EXPECT_TRUE(log.wait_for("tarn thread fini"));
  // It says so before it has closed its queue.
  EXPECT_TRUE(wait_until([&thread] { return !runs_calls_itself(thread); }));
}

// The process's thread, running now and ended afterwards: other tests poll for themselves.
class TarnIoThreadRestart : public ::testing::Test {
 protected:
  TarnIoThreadRestart() {
    thread_.start();
    EXPECT_TRUE(wait_until([this] { return !is_on(thread_); })) << "the new thread has begun";
  }
  ~TarnIoThreadRestart() override { stop_and_wait(thread_); }

  TarnIoThread& thread_ = *TarnIoThread::instance();
};

}  // namespace

TEST(TarnIoThread, RunsAsSoonAsItExists) {
  TarnIoThread* const thread = TarnIoThread::instance();

  EXPECT_TRUE(
      wait_until([thread] { return pthread_equal(thread->get_tid(), pthread_self()) == 0; }));
}

TEST(TarnIoThread, RunsWhatItIsGivenOnItself) {
  TarnIoThread& thread = running();
  std::atomic<bool> on_thread{false};
  Call call([&] { on_thread = is_on(thread); });

  thread.run(call.function());

  EXPECT_TRUE(wait_until([&] { return call.count() == 1 && on_thread; }));
}

TEST(TarnIoThread, HasRunAFunctionWhenAWaitForItReturns) {
  TarnIoThread& thread = running();
  bool on_thread = false;
  Call call([&] { on_thread = is_on(thread); });

  thread.wait(call.function());

  EXPECT_EQ(call.count(), 1);
  EXPECT_TRUE(on_thread);
}

TEST(TarnIoThread, RunsFunctionsInTheOrderTheyCame) {
  TarnIoThread& thread = running();
  std::vector<int> order;
  Call one([&] { order.push_back(1); });
  Call two([&] { order.push_back(2); });
  Call three([&] { order.push_back(3); });

  thread.run(one.function());
  thread.run(two.function());
  thread.wait(three.function());

  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(TarnIoThread, RunsInlineWhatItGivesItself) {
  TarnIoThread& thread = running();
  int ran = 0;
  Call inner;
  Call outer([&] {
    thread.run(inner.function());
    ran = inner.count();
    thread.wait(inner.function());
    ran = ran * 10 + inner.count();
  });

  thread.wait(outer.function());

  EXPECT_EQ(ran, 12);
}

TEST(TarnIoThread, HasNoTimers) {
  TarnIoThread& thread = running();
  Call call;

  EXPECT_EQ(thread.run_every(1, call.function()), 0);
  EXPECT_EQ(thread.run_after(1, call.function()), 0);
  EXPECT_EQ(thread.run_at(1, call.function()), 0);
  thread.cancel_timer(0);
  thread.update();

  Call last;
  thread.wait(last.function());
  EXPECT_EQ(call.count(), 0);
}

TEST(TarnIoThread, WaitsTenSecondsAtMost) { EXPECT_EQ(running().get_timeout(), 10000); }

TEST(TarnIoThread, IgnoresAStartWhileItRuns) {
  TarnIoThread& thread = running();
  const pthread_t before = thread.get_tid();

  thread.start();

  Call call;
  thread.wait(call.function());
  EXPECT_NE(pthread_equal(before, thread.get_tid()), 0);
}

TEST(TarnIoThread, PostsAfterTheFunctionItWrapsHasRun) {
  oxutils::sem done;
  Call call;

  tarn_io_wait_func(&done, call.function());
  done.wait();

  EXPECT_EQ(call.count(), 1);
}

TEST(TarnIoThread, LosesNoCallOfManyThreads) {
  TarnIoThread& thread = running();
  Call call;
  std::vector<std::thread> callers;

  for (int i = 0; i < 4; ++i) {
    callers.emplace_back([&] {
      for (int n = 0; n < 500; ++n) thread.run(call.function());
      thread.wait(call.function());
    });
  }
  for (std::thread& caller : callers) caller.join();

  EXPECT_EQ(call.count(), 4 * 501);
}

TEST(TarnIoThread, SaysItHasEndedAndThenRunsCallsOnTheirCaller) {
  TarnIoThread& thread = running();
  const LogCapture log(3);

  thread.stop();
  EXPECT_TRUE(log.wait_for("tarn thread fini"));
  EXPECT_EQ(log.count(3, "tarn thread fini"), 1);

  Call call;
  thread.run(call.function());
  EXPECT_TRUE(wait_until([&] { return call.count() == 1; }));
  thread.wait(call.function());
  EXPECT_EQ(call.count(), 2);
}

TEST_F(TarnIoThreadRestart, StartsAgainAfterItHasEnded) {
  stop_and_wait(thread_);
  EXPECT_FALSE(runs_calls_itself(thread_));

  thread_.start();

  EXPECT_TRUE(runs_calls_itself(thread_));
}

TEST_F(TarnIoThreadRestart, CostsNoDescriptorATime) {
  // Its first pass opens a descriptor that it keeps.
  ASSERT_TRUE(wait_until([&] { return runs_calls_itself(thread_); }));
  const int before = tarn_test::open_descriptors();

  for (int i = 0; i < 3; ++i) {
    stop_and_wait(thread_);
    thread_.start();
    EXPECT_TRUE(runs_calls_itself(thread_));
  }

  EXPECT_EQ(tarn_test::open_descriptors(), before);
}

TEST_F(TarnIoThreadRestart, GoesOnWhenItStopsAndStartsItself) {
  const pthread_t before = thread_.get_tid();
  Call restart([this] {
    thread_.stop();
    thread_.start();
  });

  thread_.wait(restart.function());

  EXPECT_TRUE(runs_calls_itself(thread_));
  EXPECT_NE(pthread_equal(before, thread_.get_tid()), 0);
}

TEST(TarnIoThreadEnd, ComesWithItsObject) {
  if (TarnIoThread::existing() != nullptr) {
    GTEST_SKIP() << "needs a process of its own, as under ctest";
  }
  const LogCapture log(3);
  {
    TarnIoThread thread;
    EXPECT_TRUE(wait_until([&] { return !is_on(thread); }));
    EXPECT_TRUE(runs_calls_itself(thread));
  }
  EXPECT_EQ(log.count(3, "tarn thread fini"), 1);
}
