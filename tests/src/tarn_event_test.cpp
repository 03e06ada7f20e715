#include "src/tarn_event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "tests/support/virtual_clock.h"

namespace {

// Long enough to be a failure of its own if a wait lasts that long.
constexpr int kLong = 60000;

int elapsed_ms(std::chrono::steady_clock::time_point since) {
  const auto took = std::chrono::steady_clock::now() - since;
  return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count());
}

TEST(TarnEvent, IsClearAtFirst) {
  TarnEvent event;
  EXPECT_FALSE(event.Wait(0));
}

TEST(TarnEvent, WaitReturnsAtOnceWhenItIsSet) {
  TarnEvent event;
  event.Set();
  EXPECT_TRUE(event.Wait(0));
}

TEST(TarnEvent, IsClearAgainAfterASuccessfulWait) {
  TarnEvent event;
  event.Set();
  EXPECT_TRUE(event.Wait(0));
  EXPECT_FALSE(event.Wait(0));
}

TEST(TarnEvent, SeveralSetsAreOneWakeUp) {
  TarnEvent event;
  for (int i = 0; i < 3; ++i) event.Set();
  EXPECT_TRUE(event.Wait(0));
  EXPECT_FALSE(event.Wait(0));
}

TEST(TarnEvent, ResetTakesASetBack) {
  TarnEvent event;
  event.Set();
  event.Reset();
  EXPECT_FALSE(event.Wait(0));
}

TEST(TarnEvent, CanBeSetAgain) {
  TarnEvent event;
  for (int i = 0; i < 3; ++i) {
    event.Set();
    EXPECT_TRUE(event.Wait(kLong));
  }
}

TEST(TarnEvent, ManualResetStaysSet) {
  TarnEvent event;
  event.Init(true, false);
  EXPECT_FALSE(event.Wait(0));
  event.Set();
  EXPECT_TRUE(event.Wait(0));
  EXPECT_TRUE(event.Wait(0));
  event.Reset();
  EXPECT_FALSE(event.Wait(0));
}

TEST(TarnEvent, MayStartSet) {
  TarnEvent event;
  event.Init(false, true);
  EXPECT_TRUE(event.Wait(0));
  EXPECT_FALSE(event.Wait(0));
  event.Init(true, true);
  EXPECT_TRUE(event.Wait(0));
  EXPECT_TRUE(event.Wait(0));
}

TEST(TarnEvent, InitForgetsAnEarlierSet) {
  TarnEvent event;
  event.Set();
  event.Init(false, false);
  EXPECT_FALSE(event.Wait(0));
}

TEST(TarnEvent, WaitEndsAfterItsTime) {
  TarnEvent event;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(event.Wait(60));
  EXPECT_GE(elapsed_ms(begin), 59);
}

TEST(TarnEvent, WaitOfMoreThanASecondEndsAfterItsTime) {
  TarnEvent event;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(event.Wait(1010));
  EXPECT_GE(elapsed_ms(begin), 1009);
}

TEST(TarnEvent, WaitDoesNotRunOnTheWallClock) {
  const tarn_test::VirtualClock stopped;
  TarnEvent event;
  EXPECT_FALSE(event.Wait(20));
}

TEST(TarnEvent, OtherNegativeTimesAreNotEndless) {
  TarnEvent event;
  EXPECT_FALSE(event.Wait(-2));
  EXPECT_FALSE(event.Wait(-1001));
  EXPECT_FALSE(event.Wait(-2147483647 - 1));
}

TEST(TarnEvent, SetOnAnotherThreadEndsAWait) {
  TarnEvent event;
  std::thread other([&] { event.Set(); });
  EXPECT_TRUE(event.Wait(kLong));
  other.join();
}

TEST(TarnEvent, SetEndsAWaitWithoutLimit) {
  TarnEvent event;
  event.Set();
  EXPECT_TRUE(event.Wait(-1));
  std::thread other([&] { event.Set(); });
  EXPECT_TRUE(event.Wait(-1));
  other.join();
  EXPECT_FALSE(event.Wait(0)) << "auto-reset holds for waits without limit as well";
}

TEST(TarnEvent, ManualResetReleasesEveryWaiter) {
  TarnEvent event;
  event.Init(true, false);
  std::atomic<int> ready{0};
  std::atomic<int> released{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&] {
      ++ready;
      if (event.Wait(kLong)) ++released;
    });
  }
  while (ready < 4) std::this_thread::yield();
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();  // most of them wait by now
  event.Set();
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(released, 4);
}

TEST(TarnEvent, PassesWorkBackAndForth) {
  TarnEvent there;
  TarnEvent back;
  int value = 0;  // plain on purpose: the events order the accesses
  std::thread other([&] {
    for (int i = 0; i < 500; ++i) {
      there.Wait(-1);
      ++value;
      back.Set();
    }
  });
  for (int i = 1; i <= 500; ++i) {
    there.Set();
    back.Wait(-1);
    ASSERT_EQ(value, i);
  }
  other.join();
}

}  // namespace
