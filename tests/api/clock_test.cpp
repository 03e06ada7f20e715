// The tick: milliseconds of the wall clock in 32 bits, wrapping, stepped forward and back.
#include <atomic>
#include <chrono>
#include <thread>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

constexpr uint64_t kWrap = uint64_t{1} << 32;

}  // namespace

using Clock = SessionFixture;

TEST_F(Clock, CountsATimeFromPoint8OnAsTheNextMillisecond) {
  Endpoint a;
  const uint64_t start = clock_.now_ms();
  a.send("x");

  settle_after([&] { clock_.set_us((start + 59) * 1000 + 799); });
  EXPECT_EQ(a.sent.count(), 1u);
  settle_after([&] { clock_.set_us((start + 59) * 1000 + 800); });

  EXPECT_EQ(a.sent.count(), 2u);
}

TEST_F(Clock, ReSendsKeepTheirPaceAcrossTheWrap) {
  clock_.set_ms(kWrap - 100);
  Endpoint a;
  a.send("x");
  std::vector<int> at;

  for (int now = 5; now <= 700; now += 5) {
    const size_t before = a.sent.count();
    advance(5);
    if (a.sent.count() > before) at.push_back(now);
  }

  EXPECT_EQ(at, (std::vector<int>{60, 180, 300, 420, 540, 660}));
}

TEST_F(Clock, SilenceIsMeasuredAcrossTheWrap) {
  clock_.set_ms(kWrap - 2500);
  Endpoint a;

  advance_by_steps(5000, 50);
  EXPECT_EQ(a.errors.count(TARN_ERROR_INACTIVE), 0);
  advance(50);

  EXPECT_EQ(a.errors.count(TARN_ERROR_INACTIVE), 1);
}

TEST_F(Clock, FeedbackKeepsItsPaceAcrossTheWrap) {
  clock_.set_ms(kWrap - 120);
  Endpoint a;
  for (int cycle = 0; cycle < 6; ++cycle) {
    a.input(datagram({reliable(0, {1})}));
    advance(49);
    EXPECT_EQ(a.sent.count(), static_cast<size_t>(cycle));
    advance(1);
    EXPECT_EQ(a.sent.count(), static_cast<size_t>(cycle + 1));
  }
}

TEST_F(Clock, TheTickIsTheTimeCutTo32Bits) {
  clock_.set_ms(5 * kWrap + 1000);
  Endpoint a;
  advance_by_steps(5000, 50);
  const LogCapture log;

  advance(50);

  EXPECT_EQ(log.count(2, text("%p active check FAIL now %lu,last %lu diff %lu", a.handle(), 6050ul,
                              1000ul, 5050ul)),
            1);
}

TEST_F(Clock, AStepForwardIsCaughtUpPeriodByPeriod) {
  Endpoint a;
  a.send("x");

  advance(60 + 120 * 100);

  EXPECT_EQ(a.sent.count(), 1u + 101);
}

TEST_F(Clock, AStepForwardMayEndInSilence) {
  Endpoint a;

  advance(5000 + 4 * 50);

  // Every cycle of the pass compares with the time at which the pass runs.
  EXPECT_EQ(a.errors.count(TARN_ERROR_INACTIVE), 104);
}

TEST_F(Clock, AStepBackStallsTheTimersByAsMuch) {
  Endpoint a;
  a.send("x");
  settle();

  settle_after([&] { clock_.advance_ms(-10000); });
  advance_by_steps(10000, 1000);
  EXPECT_EQ(a.sent.count(), 1u);
  advance(60);

  EXPECT_EQ(a.sent.count(), 2u);
}

TEST_F(Clock, AnActivityInTheFutureIsAVeryLongSilence) {
  Endpoint a;
  settle();
  WorkerHold hold;
  clock_.advance_ms(60);
  a.input(datagram({unreliable({1})}));
  clock_.advance_ms(-10);

  hold.release();

  EXPECT_EQ(a.errors.count(TARN_ERROR_INACTIVE), 1);
}

TEST_F(Clock, WaitForTheNextTimerIsNeverNegativeAndAtMost10Seconds) {
  Endpoint a;
  for (const int64_t step : {0, 1, 29, 31, 1000, 100000, -50000, -1000000, 500000, 4000000}) {
    settle_after([&] { clock_.advance_ms(step); });
    const int wait = tarn_check_update_ms();
    EXPECT_GE(wait, 0) << step;
    EXPECT_LE(wait, 10000) << step;
  }
}

namespace {

// Drains a session while time goes on at four times its pace; true when that ends by itself.
bool drain_ends(VirtualClock& clock, Endpoint& a, unsigned wait_ms) {
  std::atomic<bool> drained{false};
  std::thread drainer([&] {
    tarn_wait_destroy(a.handle(), wait_ms);
    drained = true;
  });
  const bool ended = wait_until(
      [&] {
        clock.advance_ms(40);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return drained.load();
      },
      5000);
  // The other way out.
  a.input(datagram({una(0)}));
  drainer.join();
  return ended;
}

}  // namespace

TEST_F(Clock, ADrainWhoseEndLiesBehindTheWrapEnds) {
  clock_.set_ms(kWrap - 100);
  Endpoint a;
  a.send("x");

  EXPECT_TRUE(drain_ends(clock_, a, 250));
}

TEST_F(Clock, ADrainThatSleepsThroughItsEndAndTheWrapEnds) {
  // The wait is over 50 ms before the wrap, and the sleep lasts until after it.
  clock_.set_ms(kWrap - 150);
  Endpoint a;
  a.send("x");

  EXPECT_TRUE(drain_ends(clock_, a, 100));
}
