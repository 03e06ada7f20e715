#include "oxutils/thread.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <stdexcept>

#include "oxutils/sem.h"
#include "oxutils/smart_ptr/shared_ptr.h"
#include "tests/support/kit_death.h"

using oxutils::Function;
using oxutils::make_shared;
using oxutils::sem;
using oxutils::shared_ptr;

namespace {

struct Body {
  void run() {
    ran_on = pthread_self();
    ran = true;  // plain on purpose: the join orders it before the check
  }
  void wait_then_run() {
    gate.wait();
    run();
  }
  pthread_t ran_on{};
  bool ran = false;
  sem gate;
};

TEST(Thread, RunsItsFunctionOnAnotherThread) {
  Body body;
  { const oxutils::thread thread(Function(&body, &Body::run)); }
  EXPECT_TRUE(body.ran);
  EXPECT_FALSE(pthread_equal(body.ran_on, pthread_self()));
}

TEST(Thread, DestructorWaitsForTheBody) {
  Body body;
  {
    const oxutils::thread thread(Function(&body, &Body::wait_then_run));
    body.gate.post();
  }
  EXPECT_TRUE(body.ran);
}

TEST(Thread, StartsAtConstruction) {
  Body body;
  sem begun;
  const oxutils::thread thread(Function(&begun, &sem::post));
  begun.wait();
}

TEST(Thread, MayBeDestroyedAtOnceTimeAndAgain) {
  for (int i = 0; i < 100; ++i) {
    Body body;
    { const oxutils::thread thread(Function(&body, &Body::run)); }
    ASSERT_TRUE(body.ran);
  }
}

std::atomic<int> total{0};
void add(shared_ptr<int> value) { total += *value; }

TEST(Thread, ReleasesItsFunction) {
  const shared_ptr<int> value = make_shared<int>(5);
  total = 0;
  { const oxutils::thread thread(Function(add, value)); }
  EXPECT_EQ(total, 5);
  EXPECT_EQ(value.use_count(), 1u);
}

struct Signals {
  void look() { pthread_sigmask(SIG_SETMASK, nullptr, &mask); }
  sigset_t mask{};
};

// All that can be blocked: the C library keeps those below SIGRTMIN for itself.
bool blocks_everything(const sigset_t& mask) {
  for (int number = 1; number <= SIGRTMAX; ++number) {
    const bool own = number > SIGSYS && number < SIGRTMIN;
    if (number == SIGKILL || number == SIGSTOP || own) continue;
    if (sigismember(&mask, number) != 1) return false;
  }
  return true;
}

TEST(Thread, BlocksAllSignals) {
  Signals signals;
  { const oxutils::thread thread(Function(&signals, &Signals::look)); }
  EXPECT_TRUE(blocks_everything(signals.mask));
}

TEST(Thread, LeavesTheSignalsOfItsCreatorAsTheyWere) {
  sigset_t user;
  sigemptyset(&user);
  sigaddset(&user, SIGUSR2);
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &user, &before);
  Body body;
  { const oxutils::thread thread(Function(&body, &Body::run)); }
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, &before, &after);
  EXPECT_EQ(sigismember(&after, SIGUSR2), 1);
  EXPECT_EQ(sigismember(&after, SIGUSR1), sigismember(&before, SIGUSR1));
}

void fail() { throw std::runtime_error("of a function"); }
void leave() { pthread_exit(nullptr); }
void run_on_a_thread(void (*function)()) { const oxutils::thread thread{Function(function)}; }

TEST(ThreadDeathTest, ExceptionEndsTheProcess) {
  EXPECT_ABORT(run_on_a_thread(fail), "of a function");
}

TEST(ThreadDeathTest, ThreadThatIsLeftEndsTheProcess) {
  EXPECT_ABORT(run_on_a_thread(leave), "terminate called");
}

void start_without_function() { const oxutils::thread thread{Function()}; }

TEST(ThreadDeathTest, EmptyFunctionAborts) {
  EXPECT_ASSERTION(start_without_function(), "oxutils/callback", 469, "operator()", "callback_");
}

}  // namespace
