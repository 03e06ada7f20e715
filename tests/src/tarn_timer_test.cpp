// TimerInteger and TarnTimer.
#include "src/tarn_timer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "oxutils/sem.h"
#include "tests/support/kit_death.h"
#include "tests/support/kit_timer_owner.h"

using oxutils::Function;
using oxutils::shared_ptr;

namespace {

TEST(TimerInteger, CountsFrom1) {
  TimerInteger ids;
  EXPECT_EQ(ids.add(), 1u);
  EXPECT_EQ(ids.add(), 2u);
  EXPECT_EQ(ids.add(), 3u);
}

TEST(TimerInteger, IsUniqueAcrossThreads) {
  constexpr int kThreads = 8;
  constexpr int kEach = 500;
  TimerInteger ids;
  std::vector<std::vector<unsigned>> drawn(kThreads);
  std::vector<std::thread> threads;
  for (std::vector<unsigned>& mine : drawn) {
    threads.emplace_back([&ids, &mine] {
      for (int i = 0; i < kEach; ++i) mine.push_back(ids.add());
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<unsigned> all;
  for (const std::vector<unsigned>& mine : drawn) {
    EXPECT_TRUE(std::is_sorted(mine.begin(), mine.end()));
    all.insert(mine.begin(), mine.end());
  }
  EXPECT_EQ(all.size(), static_cast<size_t>(kThreads * kEach));
  EXPECT_EQ(*all.rbegin(), static_cast<unsigned>(kThreads * kEach));
}

class TarnTimerTest : public ::testing::Test {
 protected:
  tarn_test::Runs runs_;
};

TEST_F(TarnTimerTest, KeepsWhatItIsGiven) {
  const TarnTimer timer(7, runs_.mark(1), 4000000000u, 50);
  EXPECT_EQ(timer.expiration(), 4000000000u);
  EXPECT_EQ(timer.interval(), 50);
  EXPECT_TRUE(timer.repeat());
  EXPECT_FALSE(timer.is_removed());
}

TEST_F(TarnTimerTest, RepeatsOnlyWithAnInterval) {
  EXPECT_TRUE(TarnTimer(1, runs_.mark(1), 0u, 1).repeat());
  EXPECT_FALSE(TarnTimer(1, runs_.mark(1), 0u, 0).repeat());
  EXPECT_FALSE(TarnTimer(1, runs_.mark(1), 0u, -5).repeat());
}

TEST_F(TarnTimerTest, DrawsAnIdWhenItIsGivenNone) {
  const unsigned before = TarnTimer::s_idCreated_.add();
  const TarnTimer timer(runs_.mark(1), 0u, 0);
  EXPECT_EQ(TarnTimer::s_idCreated_.add(), before + 2);
}

TEST_F(TarnTimerTest, DrawsNoIdWhenItIsGivenOne) {
  const unsigned before = TarnTimer::s_idCreated_.add();
  const TarnTimer timer(99, runs_.mark(1), 0u, 0);
  EXPECT_EQ(TarnTimer::s_idCreated_.add(), before + 1);
}

TEST_F(TarnTimerTest, RunCallsTheFunctionEveryTime) {
  TarnTimer timer(1, runs_.mark(5), 0u, 0);
  timer.run();
  timer.run();
  EXPECT_EQ(runs_.take(), (std::vector<int>{5, 5}));
}

TEST_F(TarnTimerTest, RunDoesNothingOnceRemoved) {
  TarnTimer timer(1, runs_.mark(5), 0u, 0);
  timer.remove();
  EXPECT_TRUE(timer.is_removed());
  timer.run();
  EXPECT_EQ(runs_.take(), std::vector<int>{});
}

TEST_F(TarnTimerTest, RestartMovesARepeatingTimerOnByItsInterval) {
  TarnTimer timer(1, runs_.mark(1), 100u, 50);
  timer.restart();
  EXPECT_EQ(timer.expiration(), 150u);
  timer.restart();
  EXPECT_EQ(timer.expiration(), 200u);
}

TEST_F(TarnTimerTest, RestartWrapsWithTheTick) {
  TarnTimer timer(1, runs_.mark(1), 4294967290u, 50);
  timer.restart();
  EXPECT_EQ(timer.expiration(), 44u);
}

TEST_F(TarnTimerTest, RestartSetsAOneShotTo0) {
  TarnTimer timer(1, runs_.mark(1), 100u, 0);
  timer.restart();
  EXPECT_EQ(timer.expiration(), 0u);
}

TEST_F(TarnTimerTest, MayRemoveItselfFromItsFunction) {
  TarnTimer timer(1, runs_.mark(1), 0u, 50);
  runs_.on_run = [&](int) { timer.remove(); };
  timer.run();
  EXPECT_TRUE(timer.is_removed());
  timer.run();
  EXPECT_EQ(runs_.take(), std::vector<int>{1});
}

TEST_F(TarnTimerTest, RemovalOnAnotherThreadWaitsForARunInProgress) {
  TarnTimer timer(1, runs_.mark(1), 0u, 50);
  oxutils::sem inside;
  std::atomic<bool> finished{false};
  runs_.on_run = [&](int) {
    inside.post();
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    finished = true;
  };
  bool finished_first = false;
  std::thread other([&] {
    inside.wait();
    timer.remove();
    finished_first = finished;
  });
  timer.run();
  other.join();
  EXPECT_TRUE(finished_first);
}

TEST_F(TarnTimerTest, FactoriesMakeSharedTimers) {
  const shared_ptr<TarnTimer> named = TarnTimer::create_timer(7, runs_.mark(1), 100, 50);
  EXPECT_EQ(named.use_count(), 1u);
  EXPECT_EQ(named->expiration(), 100u);
  EXPECT_EQ(named->interval(), 50);
  const unsigned before = TarnTimer::s_idCreated_.add();
  const shared_ptr<TarnTimer> numbered = TarnTimer::create_timer(runs_.mark(1), 200, 0);
  EXPECT_EQ(numbered->expiration(), 200u);
  EXPECT_EQ(TarnTimer::s_idCreated_.add(), before + 2);
}

TEST_F(TarnTimerTest, FactoryTakesATickAboveTheSignedRange) {
  const unsigned tick = 4000000000u;
  const shared_ptr<TarnTimer> timer =
      TarnTimer::create_timer(1, runs_.mark(1), static_cast<int>(tick), 0);
  EXPECT_EQ(timer->expiration(), tick);
}

void run_without_function() { TarnTimer(1, Function(), 0u, 0).run(); }

TEST(TarnTimerDeathTest, RunWithoutFunctionAborts) {
  EXPECT_ASSERTION(run_without_function(), "src/tarn_timer", 76, "run", "func_");
}

TEST(TarnTimerDeathTest, RemovedTimerNeedsNoFunction) {
  TarnTimer timer(1, Function(), 0u, 0);
  timer.remove();
  timer.run();
}

}  // namespace
