// The explorer itself: that it finds what is wrong with small programs, and counts what there is.
#include <sched.h>

#include "oxutils/mutex.h"
#include "tests/interleave/model_atomic.h"
#include "tests/interleave/model_event.h"
#include "tests/interleave/scenarios.h"

using namespace tarn_test;

namespace {

constexpr size_t kAnyNumber = 100;

// Each of two threads takes `kSteps` steps, and nothing else happens.
template <int kSteps>
struct Steps : Scenario {
  void run(size_t) override {
    for (int i = 0; i < kSteps; ++i) let_others_move();
  }
};

TEST(Explorer, TriesEveryOrderOnce) {
  EXPECT_EQ((explore<Steps<1>>(2, kAnyNumber).runs), 2u);
  EXPECT_EQ((explore<Steps<2>>(2, kAnyNumber).runs), 6u);
  EXPECT_EQ((explore<Steps<3>>(2, kAnyNumber).runs), 20u);
  EXPECT_EQ((explore<Steps<2>>(3, kAnyNumber).runs), 90u);
}

TEST(Explorer, DeviatesNoMoreOftenThanItMay) {
  EXPECT_EQ((explore<Steps<3>>(2, 0).runs), 2u) << "one after the other, either first";
  EXPECT_LT((explore<Steps<3>>(2, 1).runs), (explore<Steps<3>>(2, 2).runs));
}

struct LostUpdate : Scenario {
  void run(size_t) override { count.store(count.load() + 1); }
  void finish() override { expect(count.load() == 2, "both count"); }
  ModelAtomic<int> count;
};

struct Update : Scenario {
  void run(size_t) override { count.fetch_add(1, std::memory_order_relaxed); }
  void finish() override { expect(count.load() == 2, "both count"); }
  ModelAtomic<int> count;
};

TEST(Explorer, FindsALostUpdate) {
  EXPECT_EQ(explore<LostUpdate>(2, 1).broken, "both count");
  expect_holds<Update>(2, kAnyNumber, 2);
}

TEST(Explorer, NamesTheScheduleThatBreaksARule) {
  const auto make = [] { return std::make_unique<LostUpdate>(); };
  const Verdict verdict = Explorer(2, 1, make).explore();
  EXPECT_NE(verdict.trace.find("thread 1: load"), std::string::npos) << verdict.trace;
  EXPECT_EQ(Explorer(2, 1, make).replay(verdict.schedule).broken, "both count");
  EXPECT_EQ(Explorer(2, 1, make).replay("").broken, "");
}

// A value and the flag that says that it is there.
template <template <typename> class Atomic>
struct Message : Scenario {
  void run(size_t number) override {
    if (number == 0) {
      value.store(7, std::memory_order_relaxed);
      is_there.store(true, std::memory_order_release);
    } else if (is_there.load(std::memory_order_acquire)) {
      expect(value.load(std::memory_order_relaxed) == 7, "the value is there before the flag");
    }
  }
  Atomic<int> value;
  Atomic<bool> is_there;
};

TEST(Explorer, SeesWhatHasNotBeenOrdered) {
  expect_holds<Message<ModelAtomic>>(2, kAnyNumber, 4);
  EXPECT_NE(explore<Message<UnorderedAtomic>>(2, kAnyNumber).broken, "");
}

// Each thread says that it is coming, then looks whether the other one is.
template <std::memory_order order>
struct StoreThenLoad : Scenario {
  void run(size_t number) override {
    coming[number].store(true, order);
    saw[number] = coming[1 - number].load(order);
  }
  void finish() override { expect(saw[0] || saw[1], "one sees the other"); }
  ModelAtomic<bool> coming[2];
  bool saw[2] = {};
};

TEST(Explorer, OneOrderOfAllHoldsForThoseThatAskForIt) {
  expect_holds<StoreThenLoad<std::memory_order_seq_cst>>(2, kAnyNumber, 5);
  EXPECT_NE(explore<StoreThenLoad<std::memory_order_relaxed>>(2, kAnyNumber).broken, "");
}

struct LostWakeUp : Scenario {
  void run(size_t number) override {
    if (number == 0) {
      if (!is_ready.load()) event.Wait(-1);
    } else {
      is_ready.store(true);
      if (has_looked.load()) event.Set();
    }
  }
  ModelAtomic<bool> is_ready;
  ModelAtomic<bool> has_looked;
  ModelEvent event;
};

TEST(Explorer, FindsAThreadThatNobodyWakes) {
  EXPECT_EQ(explore<LostWakeUp>(2, 1).broken, "every thread waits");
}

template <bool kSameOrder>
struct TwoLocks : Scenario {
  void run(size_t number) override {
    const bool swaps = number == 1 && !kSameOrder;
    const oxutils::scoped_lock outer(locks[swaps ? 1 : 0]);
    const oxutils::scoped_lock inner(locks[swaps ? 0 : 1]);
    expect(!inside, "one at a time");
    inside = true;
    let_others_move();
    inside = false;
  }
  oxutils::mutex locks[2];
  bool inside = false;
};

TEST(Explorer, FindsLocksInTwoOrders) {
  expect_holds<TwoLocks<true>>(2, kAnyNumber, 2);
  EXPECT_EQ(explore<TwoLocks<false>>(2, kAnyNumber).broken, "every thread waits");
}

template <bool kComes>
struct Spinning : Scenario {
  void run(size_t number) override {
    if (number == 1) {
      flag.store(kComes, std::memory_order_release);
    } else {
      while (!flag.load(std::memory_order_acquire)) sched_yield();
    }
  }
  ModelAtomic<bool> flag;
};

TEST(Explorer, WaitsForWhatComesAndNotForWhatDoesNot) {
  expect_holds<Spinning<true>>(2, 3, 3);
  EXPECT_EQ(explore<Spinning<false>>(2, 3).broken, "it goes on without end");
}

}  // namespace
