// TarnTimerQueue: timers that repeat.
#include <gtest/gtest.h>

#include <vector>

#include "src/tarn_timer.h"
#include "tests/support/kit_timer_owner.h"
#include "tests/support/virtual_clock.h"

using oxutils::shared_ptr;
using Marks = std::vector<int>;

namespace {

class Periodic : public tarn_test::TimerQueueFixture {
 protected:
  int add(int interval, int mark) { return queue_.add_timer(runs_.mark(mark), interval, interval); }
};

TEST_F(Periodic, RunsInThePassOfItsOwnTick) {
  add(50, 1);
  EXPECT_EQ(pass_after(49), Marks{});
  EXPECT_EQ(pass_after(1), Marks{1});
}

TEST_F(Periodic, RunsEveryInterval) {
  add(50, 1);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(pass_after(49), Marks{});
    EXPECT_EQ(pass_after(1), Marks{1});
  }
}

TEST_F(Periodic, MayStartAfterAnotherDelay) {
  queue_.add_timer(runs_.mark(1), 10, 50);
  EXPECT_EQ(pass_after(10), Marks{1});
  EXPECT_EQ(pass_after(49), Marks{});
  EXPECT_EQ(pass_after(1), Marks{1});
}

TEST_F(Periodic, LatePassCatchesUpEveryMissedPeriod) {
  add(50, 1);
  EXPECT_EQ(pass_after(50 + 170), (Marks{1, 1, 1, 1}));
  EXPECT_EQ(queue_.get_timeout(), 30) << "200 ms after the missed expiration";
}

TEST_F(Periodic, StaysOnItsGrid) {
  add(50, 1);
  EXPECT_EQ(pass_after(63), Marks{1});
  EXPECT_EQ(pass_after(36), Marks{});
  EXPECT_EQ(pass_after(1), Marks{1}) << "100 ms after it was added";
}

TEST_F(Periodic, RunsItsIntervalInOrderOfAddition) {
  add(50, 1);
  add(50, 2);
  add(50, 3);
  EXPECT_EQ(pass_after(50), (Marks{1, 2, 3}));
  EXPECT_EQ(pass_after(50), (Marks{1, 2, 3}));
}

TEST_F(Periodic, CatchesUpItsIntervalRoundByRound) {
  add(50, 1);
  clock_.advance_ms(10);
  add(50, 2);
  EXPECT_EQ(pass_after(100), (Marks{1, 2, 1, 2}));
}

TEST_F(Periodic, ServesIntervalsInAscendingOrder) {
  add(70, 70);
  add(20, 20);
  add(50, 50);
  EXPECT_EQ(pass_after(70), (Marks{20, 20, 20, 50, 70}));
}

TEST_F(Periodic, ServesAShorterIntervalFirstThoughItIsDueLater) {
  queue_.add_timer(runs_.mark(1), 10, 100);
  queue_.add_timer(runs_.mark(2), 40, 50);
  EXPECT_EQ(pass_after(40), (Marks{2, 1}));
}

TEST_F(Periodic, HasItsNextExpirationWhileItRuns) {
  const shared_ptr<TarnTimer> timer = TarnTimer::create_timer(runs_.mark(1), 1000050, 50);
  std::vector<unsigned> seen;
  runs_.on_run = [&](int) { seen.push_back(timer->expiration()); };
  queue_.addTimerInLoop(timer, 50);
  pass_after(100);
  EXPECT_EQ(seen, (std::vector<unsigned>{1000100, 1000150}));
}

TEST_F(Periodic, TimeoutIsComputedByAPass) {
  add(50, 1);
  EXPECT_EQ(queue_.get_timeout(), 10000) << "before the first pass";
  pass_after(0);
  EXPECT_EQ(queue_.get_timeout(), 50);
  pass_after(20);
  EXPECT_EQ(queue_.get_timeout(), 30);
  pass_after(30);
  EXPECT_EQ(queue_.get_timeout(), 50);
}

TEST_F(Periodic, TimeoutIsThatOfTheEarliest) {
  add(80, 1);
  add(50, 2);
  pass_after(60);
  EXPECT_EQ(queue_.get_timeout(), 20) << "the one of 80 comes before the next of 50";
}

TEST_F(Periodic, TimeoutIsTheLesserOfBothKinds) {
  add(50, 1);
  pass_after(0);
  queue_.add_timer(runs_.mark(2), 20, 0);
  EXPECT_EQ(queue_.get_timeout(), 20);
  pass_after(21);
  EXPECT_EQ(queue_.get_timeout(), 29);
}

TEST_F(Periodic, FarAwayLeavesTheCap) {
  add(60000, 1);
  pass_after(0);
  EXPECT_EQ(queue_.get_timeout(), 10000);
}

TEST_F(Periodic, CanBeCancelled) {
  const int first = add(50, 1);
  add(50, 2);
  pass_after(50);
  queue_.cancel_timer(first);
  EXPECT_EQ(pass_after(50), Marks{2});
  EXPECT_EQ(pass_after(50), Marks{2});
}

TEST_F(Periodic, StaysFiledUntilItReachesTheFront) {
  const shared_ptr<int> value = oxutils::make_shared<int>(1);
  const int id = queue_.add_timer(oxutils::Function(
                                      +[](shared_ptr<int>) {}, value),
                                  50, 50);
  queue_.cancel_timer(id);
  EXPECT_GT(value.use_count(), 1u);
  pass_after(49);
  EXPECT_GT(value.use_count(), 1u);
  pass_after(1);
  EXPECT_EQ(value.use_count(), 1u);
}

TEST_F(Periodic, NoLongerCountsOnceItsQueueIsEmpty) {
  const int id = add(50, 1);
  pass_after(0);
  queue_.cancel_timer(id);
  pass_after(50);
  EXPECT_EQ(queue_.get_timeout(), 9950) << "what is left until the one-shot timers are examined";
  pass_after(9950);
  EXPECT_EQ(queue_.get_timeout(), 10000);
}

TEST_F(Periodic, CanBeAddedToAQueueThatHasBecomeEmpty) {
  queue_.cancel_timer(add(50, 1));
  pass_after(50);
  add(50, 2);
  EXPECT_EQ(pass_after(50), Marks{2});
}

TEST_F(Periodic, MayCancelItself) {
  int id = 0;
  runs_.on_run = [&](int) { queue_.cancel_timer(id); };
  id = add(50, 1);
  EXPECT_EQ(pass_after(50), Marks{1});
  EXPECT_EQ(pass_after(50), Marks{});
}

TEST_F(Periodic, ThatCancelsItselfIsNotCaughtUp) {
  int id = 0;
  runs_.on_run = [&](int) { queue_.cancel_timer(id); };
  id = add(50, 1);
  EXPECT_EQ(pass_after(500), Marks{1});
}

TEST_F(Periodic, MayCancelAnotherThatIsDueInTheSamePass) {
  add(50, 1);
  const int same_interval = add(50, 2);
  const int longer = add(60, 3);
  runs_.on_run = [&](int mark) {
    if (mark != 1) return;
    queue_.cancel_timer(same_interval);
    queue_.cancel_timer(longer);
  };
  EXPECT_EQ(pass_after(60), Marks{1});
}

TEST_F(Periodic, MayAddTimersOfItsOwnAndOtherIntervals) {
  int id = 0;
  runs_.on_run = [&](int mark) {
    if (mark != 1) return;
    queue_.cancel_timer(id);
    add(50, 2);
    add(20, 3);
    add(80, 4);
    queue_.add_timer(runs_.mark(5), 10, 0);
  };
  id = add(50, 1);
  EXPECT_EQ(pass_after(50), Marks{1});
  EXPECT_EQ(pass_after(20), (Marks{5, 3}));
  EXPECT_EQ(pass_after(30), (Marks{3, 2}));
}

TEST_F(Periodic, SurvivesManyMembers) {
  std::vector<int> ids;
  for (int mark = 0; mark < 500; ++mark) ids.push_back(add(50, mark));
  for (size_t i = 0; i < ids.size(); i += 2) queue_.cancel_timer(ids[i]);
  const Marks ran = pass_after(50);
  ASSERT_EQ(ran.size(), 250u);
  EXPECT_EQ(ran.front(), 1);
  EXPECT_EQ(ran.back(), 499);
}

// What a pass looks ahead at must be there, however few follow.
TEST_F(Periodic, RunsAnyNumberOfMembers) {
  Marks all;
  for (int mark = 0; mark < 30; ++mark) {
    add(50, mark);
    all.push_back(mark);
    EXPECT_EQ(pass_after(50), all);
  }
}

}  // namespace
