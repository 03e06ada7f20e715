// TarnTimerQueue: timers that run once.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "src/tarn_timer.h"
#include "tests/support/kit_timer_owner.h"
#include "tests/support/virtual_clock.h"

using oxutils::shared_ptr;
using Marks = std::vector<int>;

namespace {

class OneShot : public tarn_test::TimerQueueFixture {
 protected:
  int add(int delay, int mark) { return queue_.add_timer(runs_.mark(mark), delay, 0); }
};

TEST_F(OneShot, DoesNotRunInThePassOfItsOwnTick) {
  add(50, 1);
  EXPECT_EQ(pass_after(49), Marks{});
  EXPECT_EQ(pass_after(1), Marks{}) << "due exactly now";
  EXPECT_EQ(pass_after(1), Marks{1});
}

TEST_F(OneShot, RunsOnce) {
  add(50, 1);
  EXPECT_EQ(pass_after(51), Marks{1});
  EXPECT_EQ(pass_after(1000), Marks{});
}

TEST_F(OneShot, RunsInALatePassAsWell) {
  add(50, 1);
  EXPECT_EQ(pass_after(5000), Marks{1});
}

TEST_F(OneShot, TakesADelayOf0OrLessFor1) {
  add(0, 1);
  add(-1, 2);
  add(-2147483647 - 1, 3);
  add(1, 4);
  EXPECT_EQ(pass_after(1), Marks{});
  Marks ran = pass_after(1);
  std::sort(ran.begin(), ran.end());
  EXPECT_EQ(ran, (Marks{1, 2, 3, 4}));
}

TEST_F(OneShot, RunsInOrderOfExpiration) {
  add(30, 3);
  add(10, 1);
  add(20, 2);
  EXPECT_EQ(pass_after(100), (Marks{1, 2, 3}));
}

TEST_F(OneShot, RunsOnlyWhatIsDue) {
  add(30, 3);
  add(10, 1);
  add(20, 2);
  EXPECT_EQ(pass_after(21), (Marks{1, 2}));
  EXPECT_EQ(pass_after(10), Marks{3});
}

TEST_F(OneShot, RunsInOrderOfAddressAtEqualExpiration) {
  std::vector<shared_ptr<TarnTimer>> timers;
  for (int mark = 0; mark < 8; ++mark) {
    timers.push_back(TarnTimer::create_timer(runs_.mark(mark), 1000010, 0));
  }
  Marks by_address{0, 1, 2, 3, 4, 5, 6, 7};
  std::sort(by_address.begin(), by_address.end(), [&](int a, int b) {
    return timers[static_cast<size_t>(a)].get() < timers[static_cast<size_t>(b)].get();
  });
  for (auto i = by_address.rbegin(); i != by_address.rend(); ++i) {
    queue_.addTimerInLoop(timers[static_cast<size_t>(*i)], 10);
  }
  EXPECT_EQ(pass_after(11), by_address);
}

TEST_F(OneShot, CanBeCancelled) {
  const int id = add(50, 1);
  add(50, 2);
  queue_.cancel_timer(id);
  EXPECT_EQ(pass_after(51), Marks{2});
}

TEST_F(OneShot, CancellingAFinishedOrUnknownIdIsIgnored) {
  const int id = add(50, 1);
  pass_after(51);
  queue_.cancel_timer(id);
  queue_.cancel_timer(123456);
  queue_.cancel_timer(0);
  queue_.cancel_timer(-1);
  add(50, 2);
  EXPECT_EQ(pass_after(51), Marks{2});
}

TEST_F(OneShot, FallingDueInTheSamePassCannotBeCancelledAnyMore) {
  add(10, 1);
  const int second = add(20, 2);
  runs_.on_run = [&](int mark) {
    if (mark == 1) queue_.cancel_timer(second);
  };
  EXPECT_EQ(pass_after(30), (Marks{1, 2}));
}

TEST_F(OneShot, FallingDueLaterCanBeCancelledByACallback) {
  add(10, 1);
  const int second = add(40, 2);
  runs_.on_run = [&](int mark) {
    if (mark == 1) queue_.cancel_timer(second);
  };
  EXPECT_EQ(pass_after(30), Marks{1});
  EXPECT_EQ(pass_after(30), Marks{});
}

TEST_F(OneShot, AddedByACallbackWaitsForALaterPass) {
  add(10, 1);
  runs_.on_run = [&](int mark) {
    if (mark == 1) add(0, 2);
  };
  EXPECT_EQ(pass_after(30), Marks{1});
  EXPECT_EQ(pass_after(1), Marks{});
  EXPECT_EQ(pass_after(1), Marks{2});
}

TEST_F(OneShot, RunsBeforeThePeriodicTimers) {
  queue_.add_timer(runs_.mark(2), 5, 5);
  add(8, 1);
  EXPECT_EQ(pass_after(9), (Marks{1, 2}));
}

TEST_F(OneShot, ReleasesItsFunctionAfterItsRun) {
  const shared_ptr<int> value = oxutils::make_shared<int>(1);
  queue_.add_timer(oxutils::Function(
                       +[](shared_ptr<int>) {}, value),
                   10, 0);
  EXPECT_GT(value.use_count(), 1u);
  pass_after(11);
  EXPECT_EQ(value.use_count(), 1u);
}

TEST_F(OneShot, ReleasesItsFunctionWhenItIsCancelled) {
  const shared_ptr<int> value = oxutils::make_shared<int>(1);
  const int id = queue_.add_timer(oxutils::Function(
                                      +[](shared_ptr<int>) {}, value),
                                  10, 0);
  queue_.cancel_timer(id);
  EXPECT_EQ(value.use_count(), 1u);
}

TEST_F(OneShot, OfAQueueThatGoesIsReleasedUnrun) {
  const shared_ptr<int> value = oxutils::make_shared<int>(1);
  {
    TarnTimerQueue queue(&owner_);
    queue.add_timer(oxutils::Function(
                        +[](shared_ptr<int>) {}, value),
                    10, 0);
    queue.add_timer(oxutils::Function(
                        +[](shared_ptr<int>) {}, value),
                    10, 10);
  }
  EXPECT_EQ(value.use_count(), 1u);
}

TEST_F(OneShot, SetsTheTimeout) {
  EXPECT_EQ(queue_.get_timeout(), 10000);
  add(50, 1);
  EXPECT_EQ(queue_.get_timeout(), 50);
  add(200, 2);
  EXPECT_EQ(queue_.get_timeout(), 50);
  add(20, 3);
  EXPECT_EQ(queue_.get_timeout(), 20);
}

TEST_F(OneShot, TimeoutIsCountedDownByThePasses) {
  add(50, 1);
  pass_after(20);
  EXPECT_EQ(queue_.get_timeout(), 30);
  pass_after(29);
  EXPECT_EQ(queue_.get_timeout(), 1);
}

TEST_F(OneShot, DueExactlyNowLeavesATimeoutOf0) {
  add(50, 1);
  pass_after(50);
  EXPECT_EQ(queue_.get_timeout(), 0);
  pass_after(1);
  EXPECT_EQ(queue_.get_timeout(), 10000);
}

TEST_F(OneShot, TimeoutAfterAPassIsThatOfTheNext) {
  add(50, 1);
  add(80, 2);
  pass_after(60);
  EXPECT_EQ(queue_.get_timeout(), 20);
}

TEST_F(OneShot, FarAwayLeavesTheCap) {
  add(60000, 1);
  EXPECT_EQ(queue_.get_timeout(), 10000);
  add(5, 2);
  pass_after(6);
  EXPECT_EQ(queue_.get_timeout(), 10000);
}

TEST_F(OneShot, FarAwayRunsInTheEnd) {
  add(60000, 1);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(pass_after(10000), Marks{});
  EXPECT_EQ(pass_after(1), Marks{1});
}

TEST_F(OneShot, AddedSomeTimeAfterThePassWakesEarlyAndIsThenExact) {
  clock_.advance_ms(30);  // since the queue was made
  add(50, 1);
  EXPECT_EQ(queue_.get_timeout(), 50);
  EXPECT_EQ(pass_after(20), Marks{}) << "examined 50 ms after the last pass";
  EXPECT_EQ(queue_.get_timeout(), 30);
  EXPECT_EQ(pass_after(31), Marks{1});
}

TEST_F(OneShot, CancellingTheLastLeavesTheTimeoutUntilItIsOver) {
  const int id = add(50, 1);
  queue_.cancel_timer(id);
  EXPECT_EQ(queue_.get_timeout(), 50);
  pass_after(50);
  EXPECT_EQ(queue_.get_timeout(), 10000);
}

TEST_F(OneShot, ProcessingThemAloneLeavesThePeriodicOnes) {
  queue_.add_timer(runs_.mark(2), 5, 5);
  add(5, 1);
  clock_.advance_ms(20);
  queue_.process_timers_level_0(TarnTimerQueue::cur_tick());
  EXPECT_EQ(runs_.take(), Marks{1});
}

}  // namespace
