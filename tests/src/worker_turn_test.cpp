// WorkerTurn: one at a time, and the worker gets its turn.
#include "src/worker_turn.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "src/tarn_event.h"

namespace {

// An event on which the worker's sleep is whatever the test makes happen meanwhile.
struct ScriptedEvent {
  void Set() { ++wakes; }
  bool Wait(int ms) {
    EXPECT_EQ(ms, -1);
    ++sleeps;
    while_asleep();
    return true;
  }
  int wakes = 0;
  int sleeps = 0;
  std::function<void()> while_asleep = [] { FAIL() << "nobody would wake the worker"; };
};

struct Turn : ::testing::Test {
  using Scripted = WorkerTurn<ScriptedEvent>;

  // A turn of another thread, which the test ends by a reset.
  std::unique_ptr<Scripted::Guard> take() {
    return std::unique_ptr<Scripted::Guard>(new Scripted::Guard(turn.try_begin()));
  }
  bool is_free() { return static_cast<bool>(turn.try_begin()); }

  ScriptedEvent event;
  Scripted turn{event};
};

TEST_F(Turn, IsTakenByOneAtATime) {
  const auto first = turn.try_begin();
  EXPECT_TRUE(first);
  EXPECT_FALSE(turn.try_begin());
}

TEST_F(Turn, StaysTakenWhenOneThatDidNotGetItIsThrough) {
  const auto first = turn.try_begin();
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(turn.try_begin());
}

TEST_F(Turn, IsFreeAgainAfterEitherKind) {
  take().reset();
  EXPECT_TRUE(is_free());
  { const auto worker = turn.begin(); }
  EXPECT_TRUE(is_free());
  EXPECT_EQ(event.wakes, 0) << "nobody waited";
}

TEST_F(Turn, OfTheWorkerKeepsOthersOff) {
  const auto worker = turn.begin();
  EXPECT_TRUE(worker);
  EXPECT_FALSE(turn.try_begin());
}

TEST_F(Turn, EndsWhenAnExceptionLeavesIt) {
  EXPECT_THROW(
      {
        const auto guard = turn.try_begin();
        throw std::runtime_error("left");
      },
      std::runtime_error);
  EXPECT_TRUE(is_free());
}

TEST_F(Turn, EndsWhenItsThreadIsCancelled) {
  std::thread thread([this] {
    const auto guard = turn.try_begin();
    pthread_exit(nullptr);  // unwinds as a cancellation does
  });
  thread.join();
  EXPECT_TRUE(is_free());
}

TEST_F(Turn, IsHandedToTheWorkerThatWaits) {
  auto other = take();
  event.while_asleep = [&] {
    EXPECT_FALSE(turn.try_begin()) << "the worker comes next";
    other.reset();
    EXPECT_EQ(event.wakes, 1);
    EXPECT_FALSE(turn.try_begin()) << "it is the worker's, which has not noticed yet";
  };
  {
    const auto worker = turn.begin();
    EXPECT_EQ(event.sleeps, 1);
    EXPECT_FALSE(turn.try_begin());
  }
  EXPECT_TRUE(is_free());
  EXPECT_EQ(event.wakes, 1) << "the worker wakes nobody";
}

TEST_F(Turn, IsWaitedForThroughWakeUpsOfOtherKinds) {
  auto other = take();
  event.while_asleep = [&] {
    if (event.sleeps == 3) other.reset();
  };
  const auto worker = turn.begin();
  EXPECT_EQ(event.sleeps, 3);
}

TEST_F(Turn, CanBeWaitedForAgainAndAgain) {
  for (int round = 1; round <= 3; ++round) {
    auto other = take();
    ASSERT_TRUE(*other);
    event.while_asleep = [&] { other.reset(); };
    const auto worker = turn.begin();
    EXPECT_EQ(event.sleeps, round);
  }
}

TEST(TurnBetweenThreads, NeverBelongsToTwo) {
  TarnEvent event;
  WorkerTurn<TarnEvent> turn(event);
  int plain = 0;  // a race detector's matter, and a lost increment's
  std::atomic<int> taken{0};
  std::atomic<bool> done{false};
  std::vector<std::thread> updaters(3);
  for (std::thread& each : updaters) {
    each = std::thread([&] {
      while (!done) {
        const auto guard = turn.try_begin();
        if (!guard) continue;
        ++plain;
        ++taken;
      }
    });
  }
  constexpr int kTurns = 20000;
  for (int i = 0; i < kTurns; ++i) {
    const auto guard = turn.begin();
    ++plain;
  }
  done = true;
  for (std::thread& each : updaters) each.join();
  EXPECT_EQ(plain, kTurns + taken);
}

}  // namespace
