// TarnTimerQueue: passes that a timer's function leaves before their end, by an exception or
// because its thread is cancelled.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "src/tarn_timer.h"
#include "tests/support/kit_timer_owner.h"

using Marks = std::vector<int>;

namespace {

struct Left {};

class LeftPass : public tarn_test::TimerQueueFixture {
 protected:
  LeftPass() {
    runs_.on_run = [this](int mark) {
      if (std::find(leavers_.begin(), leavers_.end(), mark) != leavers_.end()) throw Left();
    };
  }
  int add(int delay, int interval, int mark) {
    return queue_.add_timer(runs_.mark(mark), delay, interval);
  }
  // What runs until the pass is left.
  Marks left_pass_after(int ms) {
    clock_.advance_ms(ms);
    EXPECT_THROW(queue_.process_timers(), Left);
    EXPECT_EQ(queue_.get_timeout(), 0) << "the rest is due";
    return runs_.take();
  }

  Marks leavers_;  // marks of the timers whose functions throw
};

TEST_F(LeftPass, OneShotHasRunAndTheRestRunsInTheNext) {
  add(10, 0, 1);
  add(20, 0, 2);
  add(30, 0, 3);
  add(90, 0, 4);
  leavers_ = {2};
  EXPECT_EQ(left_pass_after(50), (Marks{1, 2}));
  EXPECT_EQ(pass_after(0), Marks{3});
  EXPECT_EQ(queue_.get_timeout(), 40);
  EXPECT_EQ(pass_after(41), Marks{4});
}

TEST_F(LeftPass, OneShotIsReleased) {
  const oxutils::shared_ptr<int> value = oxutils::make_shared<int>(1);
  queue_.add_timer(oxutils::Function(
                       +[](oxutils::shared_ptr<int>) { throw Left(); }, value),
                   10, 0);
  left_pass_after(11);
  EXPECT_EQ(value.use_count(), 1u);
}

TEST_F(LeftPass, OneShotThatHasNotRunYetCanBeCancelled) {
  add(10, 0, 1);
  const int second = add(20, 0, 2);
  leavers_ = {1};
  left_pass_after(50);
  queue_.cancel_timer(second);
  EXPECT_EQ(pass_after(1), Marks{});
}

TEST_F(LeftPass, OneShotKeepsItsPlaceAmongNewOnes) {
  add(10, 0, 1);
  add(20, 0, 2);
  leavers_ = {1};
  left_pass_after(50);
  add(1, 0, 3);
  EXPECT_EQ(pass_after(2), (Marks{2, 3}));
}

TEST_F(LeftPass, OfOneShotsIsFollowedByThePeriodicTimersToo) {
  add(10, 0, 1);
  add(20, 20, 2);
  leavers_ = {1};
  EXPECT_EQ(left_pass_after(20), Marks{1});
  EXPECT_EQ(pass_after(0), Marks{2});
  EXPECT_EQ(queue_.get_timeout(), 20);
}

TEST_F(LeftPass, PeriodicTimerGoesOnWithItsNextPeriod) {
  add(50, 50, 1);
  leavers_ = {1};
  EXPECT_EQ(left_pass_after(50), Marks{1});
  leavers_.clear();
  EXPECT_EQ(pass_after(0), Marks{});
  EXPECT_EQ(queue_.get_timeout(), 50);
  EXPECT_EQ(pass_after(49), Marks{});
  EXPECT_EQ(pass_after(1), Marks{1});
}

TEST_F(LeftPass, PeriodicTimerDoesNotStandBeforeOthersOfItsInterval) {
  add(50, 50, 1);
  clock_.advance_ms(10);
  add(50, 50, 2);
  leavers_ = {1};
  EXPECT_EQ(left_pass_after(40), Marks{1});
  EXPECT_EQ(pass_after(10), Marks{2});
  EXPECT_EQ(queue_.get_timeout(), 40);
}

TEST_F(LeftPass, PeriodicTimerCanBeCancelled) {
  const int id = add(50, 50, 1);
  leavers_ = {1};
  left_pass_after(50);
  queue_.cancel_timer(id);
  EXPECT_EQ(pass_after(200), Marks{});
}

TEST_F(LeftPass, ReleasesTheTimersLock) {
  const auto timer = TarnTimer::create_timer(runs_.mark(1), 1000050, 50);
  queue_.addTimerInLoop(timer, 50);
  leavers_ = {1};
  left_pass_after(50);
  std::thread([&] { timer->remove(); }).join();
  EXPECT_TRUE(timer->is_removed());
}

// Leaves a pass at the runs whose bits are set in `leaving`.
Marks run_all(unsigned int leaving) {
  tarn_test::VirtualClock clock;
  tarn_test::InlineOwner owner;
  tarn_test::Runs runs;
  TarnTimerQueue queue(&owner);
  unsigned int count = 0;
  runs.on_run = [&](int) {
    if ((leaving >> count++ & 1) != 0) throw Left();
  };
  for (const int delay : {3, 1, 2}) queue.add_timer(runs.mark(delay), delay, 0);
  for (const int mark : {10, 11}) queue.add_timer(runs.mark(mark), mark, 10);
  queue.add_timer(runs.mark(20), 20, 20);
  queue.add_timer(runs.mark(7), 7, 7);
  clock.advance_ms(22);
  for (;;) {
    try {
      queue.process_timers();
      return runs.take();
    } catch (const Left&) {
      EXPECT_EQ(queue.get_timeout(), 0);
    }
  }
}

TEST(LeftPasses, ComeToTheSameTogetherWhereverTheyAreLeft) {
  const Marks undisturbed = run_all(0);
  ASSERT_EQ(undisturbed.size(), 11u);
  for (unsigned int leaving = 1; leaving < 1U << undisturbed.size(); ++leaving) {
    ASSERT_EQ(run_all(leaving), undisturbed) << "left at " << leaving;
  }
}

// TSan loses track of a thread that is cancelled inside a system call.
void end_own_thread() {
  pthread_cancel(pthread_self());
  pthread_testcancel();
}

TEST_F(LeftPass, ByACancelledThreadLosesNothing) {
  runs_.on_run = [&](int mark) {
    if (mark == 2 || mark == 4) end_own_thread();
  };
  for (const int mark : {1, 2, 3}) add(10 * mark, 0, mark);
  for (const int mark : {4, 5}) add(50, 50, mark);
  clock_.advance_ms(50);
  for (const Marks& expected : {Marks{1, 2}, Marks{3, 4}}) {
    pthread_t thread;
    void* result = nullptr;
    pthread_create(
        &thread, nullptr,
        [](void* queue) -> void* {
          static_cast<TarnTimerQueue*>(queue)->process_timers();
          return nullptr;
        },
        &queue_);
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(runs_.take(), expected);
    EXPECT_EQ(queue_.get_timeout(), 0);
  }
  EXPECT_EQ(pass_after(0), Marks{5});
}

}  // namespace
