// TarnTimerQueue: ids, the tick and its wrap, odd clocks, foreign threads, log lines.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include "src/tarn_timer.h"
#include "tests/support/kit_timer_owner.h"
#include "tests/support/log_capture.h"
#include "tests/support/virtual_clock.h"

using tarn_test::LogCapture;
using tarn_test::VirtualClock;
using Marks = std::vector<int>;

namespace {

constexpr uint64_t kWrap = uint64_t{1} << 32;

std::string thread_text(pthread_t id) { return std::to_string(static_cast<unsigned>(id)); }

// A queue on the test's thread whose clock starts at a given millisecond.
struct Timed {
  explicit Timed(uint64_t ms = 1'000'000) : clock(ms) {}
  int add(int delay, int interval, int mark) {
    return queue.add_timer(runs.mark(mark), delay, interval);
  }
  Marks pass_after(int64_t ms) {
    clock.advance_ms(ms);
    queue.process_timers();
    return runs.take();
  }
  bool timeout_in_range() const { return queue.get_timeout() >= 0 && queue.get_timeout() <= 10000; }
  VirtualClock clock;
  tarn_test::InlineOwner owner;
  tarn_test::Runs runs;
  TarnTimerQueue queue{&owner};
};

TEST(Tick, IsTheWallClockInMilliseconds) {
  const VirtualClock clock(123456);
  EXPECT_EQ(TarnTimerQueue::cur_tick(), 123456u);
}

TEST(Tick, CountsTheLast200MicrosecondsForTheNext) {
  VirtualClock clock;
  clock.set_us(1'000'000'799);
  EXPECT_EQ(TarnTimerQueue::cur_tick(), 1'000'000u);
  clock.set_us(1'000'000'800);
  EXPECT_EQ(TarnTimerQueue::cur_tick(), 1'000'001u);
  clock.set_us(1'000'999'800);
  EXPECT_EQ(TarnTimerQueue::cur_tick(), 1'001'000u);
}

TEST(Tick, IsTruncatedTo32Bits) {
  const VirtualClock clock(kWrap + 5);
  EXPECT_EQ(TarnTimerQueue::cur_tick(), 5u);
}

TEST(Tick, IsTruncatedAtPresentDay) {
  const uint64_t ms = 1'750'000'000'123;
  const VirtualClock clock(ms);
  EXPECT_EQ(TarnTimerQueue::cur_tick(), static_cast<unsigned>(ms));
}

TEST(TarnTimerQueue, NumbersItsTimersInOrder) {
  Timed t;
  const int first = t.add(10, 0, 1);
  EXPECT_EQ(t.add(10, 10, 2), first + 1);
  EXPECT_EQ(t.add(5, 0, 3), first + 2);
}

TEST(TarnTimerQueue, SharesItsNumbersWithOtherQueues) {
  Timed t;
  TarnTimerQueue other(&t.owner);
  const int first = t.add(10, 0, 1);
  EXPECT_EQ(other.add_timer(t.runs.mark(2), 10, 0), first + 1);
}

TEST(TarnTimerQueue, ReportsTheCapWithoutTimers) {
  Timed t;
  EXPECT_EQ(t.queue.get_timeout(), 10000);
  t.pass_after(0);
  EXPECT_EQ(t.queue.get_timeout(), 10000);
  t.pass_after(25000);
  EXPECT_EQ(t.queue.get_timeout(), 10000);
}

TEST(TarnTimerQueue, TakesAnIntervalBelow0ForAOneShot) {
  Timed t;
  t.add(10, -5, 1);
  t.add(10, std::numeric_limits<int>::min(), 1);
  EXPECT_EQ(t.pass_after(10), Marks{});
  EXPECT_EQ(t.pass_after(1), (Marks{1, 1}));
  EXPECT_EQ(t.pass_after(1000), Marks{});
}

TEST(TarnTimerQueue, TakesTheLongestDelay) {
  Timed t;
  t.add(std::numeric_limits<int>::max(), 0, 1);
  EXPECT_EQ(t.pass_after(10000), Marks{});
  EXPECT_TRUE(t.timeout_in_range());
}

TEST(TickWrap, PeriodicTimersSurviveIt) {
  Timed t(kWrap - 16);
  t.add(50, 50, 1);
  EXPECT_EQ(t.pass_after(10), Marks{});
  EXPECT_EQ(t.queue.get_timeout(), 40);
  EXPECT_EQ(t.pass_after(39), Marks{});
  EXPECT_EQ(t.pass_after(1), Marks{1});
  EXPECT_EQ(t.pass_after(50), Marks{1});
}

TEST(TickWrap, OneShotBeyondItRunsAtTheNextExaminationBeforeIt) {
  Timed t(kWrap - 100);
  t.add(150, 0, 1);  // expires at tick 50, which looks long past
  t.add(10, 0, 2);
  EXPECT_EQ(t.pass_after(9), Marks{}) << "not examined yet";
  EXPECT_EQ(t.pass_after(2), (Marks{1, 2}));
}

TEST(TickWrap, OneShotBeyondItRunsInTimeWhenNothingElseIsExamined) {
  Timed t(kWrap - 100);
  t.add(150, 0, 1);
  EXPECT_EQ(t.pass_after(149), Marks{});
  EXPECT_EQ(t.pass_after(1), Marks{});
  EXPECT_EQ(t.pass_after(1), Marks{1});
}

TEST(TickWrap, OneShotBeforeItThatIsMissedStallsWithoutANegativeTimeout) {
  Timed t(kWrap - 100);
  t.add(50, 0, 1);  // expires at a tick that looks far ahead once the tick has wrapped
  EXPECT_EQ(t.pass_after(200), Marks{});
  EXPECT_TRUE(t.timeout_in_range()) << t.queue.get_timeout();
}

TEST(OddClock, StepBackStallsTimersWithinTheCap) {
  Timed t;
  t.add(50, 0, 1);
  t.add(50, 50, 2);
  t.pass_after(0);
  EXPECT_EQ(t.pass_after(-100000), Marks{});
  EXPECT_TRUE(t.timeout_in_range()) << t.queue.get_timeout();
  EXPECT_EQ(t.pass_after(100051), (Marks{1, 2}));
}

TEST(OddClock, StepBackPastTheTicksStartKeepsTheTimeoutInRange) {
  Timed t(kWrap + 20);
  t.add(50, 0, 1);
  t.add(50, 50, 2);
  t.pass_after(-40);
  EXPECT_TRUE(t.timeout_in_range()) << t.queue.get_timeout();
}

// How long after the beginning of a pass a one-shot of 500 ms runs that is added in the pass,
// beside a step of the clock. As with the worker, an addition is followed by another pass at once,
// and time goes on at the pace of the sleeps.
int runs_after(int64_t step, bool step_first, uint64_t start = 1'000'000) {
  Timed t(start);
  t.runs.on_run = [&](int mark) {
    if (mark != 1) return;
    if (step_first) t.clock.advance_ms(step);
    t.add(500, 0, 2);
    if (!step_first) t.clock.advance_ms(step);
  };
  t.add(10, 0, 1);
  EXPECT_EQ(t.pass_after(11), Marks{1});
  int slept = 0;
  for (int sleep = 0; slept < 100'000; sleep = std::max(1, t.queue.get_timeout())) {
    slept += sleep;
    if (t.pass_after(sleep) == Marks{2}) return slept;
    EXPECT_TRUE(t.timeout_in_range()) << t.queue.get_timeout();
  }
  return -1;
}

TEST(ClockStepInsideAPass, BackStallsWhatWasAddedBeforeByAsMuch) {
  for (const int step : {1, 400, 499, 500, 501, 1000, 60'000}) {
    EXPECT_EQ(runs_after(-step, false), 500 + step + 1) << step;
  }
}

TEST(ClockStepInsideAPass, BackLeavesWhatIsAddedAfterItInTime) {
  for (const int step : {1, 400, 499, 500, 501, 1000, 60'000}) {
    EXPECT_EQ(runs_after(-step, true), 501) << step;
  }
}

TEST(ClockStepInsideAPass, ForwardBringsWhatWasAddedBeforeNearer) {
  EXPECT_EQ(runs_after(400, false), 101);
  EXPECT_EQ(runs_after(1000, false), 0);
}

TEST(ClockStepInsideAPass, ForwardLeavesWhatIsAddedAfterItInTime) {
  for (const int step : {1, 400, 1000, 60'000}) EXPECT_EQ(runs_after(step, true), 501) << step;
}

// One that is due beyond the wrap may run early.
TEST(ClockStepInsideAPass, CloseToTheWrapCostsNoMoreThanTheStep) {
  for (const uint64_t before : {12, 200, 500, 700, 1500}) {
    for (const int step : {-1000, -100, 0, 100}) {
      for (const bool step_first : {false, true}) {
        const int ran = runs_after(step, step_first, kWrap - before);
        EXPECT_GE(ran, 0) << before << " " << step << " " << step_first;
        EXPECT_LE(ran, 500 + std::max(0, -step) + 1) << before << " " << step << " " << step_first;
      }
    }
  }
}

TEST(OddClock, StepForwardIsCaughtUpPeriodByPeriod) {
  Timed t;
  t.add(50, 50, 1);
  EXPECT_EQ(t.pass_after(3600 * 1000).size(), 72000u);
  EXPECT_EQ(t.queue.get_timeout(), 50);
}

TEST(OddClock, TimeoutStaysInRangeWhateverTheClockDoes) {
  Timed t(kWrap - 5000);
  t.add(30, 30, 1);
  t.add(700, 0, 2);
  t.add(9000, 0, 3);
  for (const int step : {100, 4000, 2000, -3000, 5000, -100, 9999, -9999, 1, 0, 60000}) {
    t.pass_after(step);
    ASSERT_TRUE(t.timeout_in_range()) << t.queue.get_timeout() << " after a step of " << step;
  }
}

TEST(TimerLog, SpeaksOfAnAddition) {
  Timed t;
  const LogCapture log;
  const int id = t.add(0, 50, 1);
  EXPECT_EQ(log.count(4, "add_timer id: " + std::to_string(id) + ", delay: 1, current tid " +
                             thread_text(pthread_self())),
            1);
  EXPECT_EQ(log.count_containing("thread_id"), 0);
}

TEST(TimerLog, SpeaksOfACancellation) {
  Timed t;
  const int id = t.add(50, 0, 1);
  const LogCapture log;
  t.queue.cancel_timer(id);
  t.queue.cancel_timer(987654);
  const std::string tail = ", current tid " + thread_text(pthread_self());
  EXPECT_EQ(log.count(4, "cancel_timer id: " + std::to_string(id) + tail), 1);
  EXPECT_EQ(log.count(4, "cancel_timer id: 987654" + tail), 1);
  EXPECT_EQ(log.count_containing("thread_id"), 0);
}

class ForeignThread : public ::testing::Test {
 protected:
  VirtualClock clock_;
  tarn_test::DistantOwner owner_;
  tarn_test::Runs runs_;
  TarnTimerQueue queue_{&owner_};
};

TEST_F(ForeignThread, GetsTheIdBeforeTheTimerIsFiled) {
  EXPECT_GT(queue_.add_timer(runs_.mark(1), 20, 0), 0);
  EXPECT_EQ(queue_.get_timeout(), 10000);
  EXPECT_EQ(owner_.drain(), 1u);
  EXPECT_EQ(queue_.get_timeout(), 20);
}

TEST_F(ForeignThread, TimerCountsFromItsAddition) {
  queue_.add_timer(runs_.mark(1), 20, 0);
  clock_.advance_ms(15);
  owner_.drain();
  clock_.advance_ms(6);
  queue_.process_timers();  // the timeout of 20 counts from the queue's making, as does the delay
  EXPECT_EQ(runs_.take(), Marks{1});
}

TEST_F(ForeignThread, CancelledTimerMayStillRunOnce) {
  const int id = queue_.add_timer(runs_.mark(1), 20, 20);
  owner_.drain();
  queue_.cancel_timer(id);
  clock_.advance_ms(20);
  queue_.process_timers();
  EXPECT_EQ(runs_.take(), Marks{1});
  owner_.drain();
  clock_.advance_ms(20);
  queue_.process_timers();
  EXPECT_EQ(runs_.take(), Marks{});
}

TEST_F(ForeignThread, TimerCancelledBeforeItIsFiledNeverRuns) {
  queue_.cancel_timer(queue_.add_timer(runs_.mark(1), 20, 0));
  owner_.drain();
  clock_.advance_ms(100);
  queue_.process_timers();
  EXPECT_EQ(runs_.take(), Marks{});
}

// The owner's thread need not wait for what is on its way to it.
TEST_F(ForeignThread, TimerThatTheOwnersThreadOvertakesIsNotKept) {
  const oxutils::shared_ptr<int> value = oxutils::make_shared<int>(1);
  for (const int interval : {0, 20}) {
    const int id = queue_.add_timer(oxutils::Function(
                                        +[](oxutils::shared_ptr<int>) {}, value),
                                    20, interval);
    queue_.cancelInLoop(id);
    const LogCapture log;
    owner_.drain();
    EXPECT_EQ(log.count(4, "add_timer id: " + std::to_string(id) + ", delay: 20, current tid " +
                               thread_text(pthread_self())),
              1);
    EXPECT_EQ(value.use_count(), 1u);
  }
  EXPECT_EQ(queue_.get_timeout(), 10000);
}

TEST(TarnTimerQueue, KeepsNothingOfATimerThatItsOwnerDoesNotTake) {
  struct FullOwner : tarn_test::DistantOwner {
    void run(oxutils::Function) override { throw std::bad_alloc(); }
  } owner;
  TarnTimerQueue queue(&owner);
  const oxutils::shared_ptr<int> value = oxutils::make_shared<int>(1);
  EXPECT_THROW(queue.add_timer(oxutils::Function(
                                   +[](oxutils::shared_ptr<int>) {}, value),
                               20, 20),
               std::bad_alloc);
  EXPECT_EQ(value.use_count(), 1u);
}

TEST_F(ForeignThread, IsLoggedAsSuch) {
  const LogCapture log;
  const int id = queue_.add_timer(runs_.mark(1), -3, 40);
  queue_.cancel_timer(id);
  const std::string tail = "current tid " + thread_text(pthread_self()) + ", thread_id 0";
  EXPECT_EQ(
      log.count(2, "add_timer id: " + std::to_string(id) + ", delay: 1, interval: 40, " + tail), 1);
  EXPECT_EQ(log.count(2, "cancel_timer id: " + std::to_string(id) + ", " + tail), 1);
}

}  // namespace
