// WorkerTurn: one thread has the turn at a time, and the worker gets it when it waits.
#include "src/worker_turn.h"
#include "tests/interleave/model_atomic.h"
#include "tests/interleave/model_event.h"
#include "tests/interleave/scenarios.h"

using namespace tarn_test;

namespace {

template <template <typename> class Atomic>
struct TurnScenario : Scenario {
  void finish() override { expect(bool(turn.try_begin()), "nobody keeps the turn"); }

  // What is done in a turn. `uses` has no order of its own: whoever has the turn sees what was done
  // in the ones before.
  void use() {
    expect(!is_taken, "one thread at a time");
    is_taken = true;
    const int before = uses.load(std::memory_order_relaxed);
    expect(before == turns, "a turn sees the ones before it");
    uses.store(before + 1, std::memory_order_relaxed);
    ++turns;
    is_taken = false;
  }

  ModelEvent event;
  WorkerTurn<ModelEvent, Atomic> turn{event};
  ModelAtomic<int> uses;
  int turns = 0;
  bool is_taken = false;
};

// Thread 0 is the worker: it wants two turns and gets them. The others update, which needs none.
template <template <typename> class Atomic>
struct Turns : TurnScenario<Atomic> {
  void run(size_t number) override {
    for (int i = 0; i < 2; ++i) {
      const auto guard = number == 0 ? this->turn.begin() : this->turn.try_begin();
      expect(number != 0 || guard, "the worker gets its turn");
      if (guard) this->use();
    }
  }
};

TEST(WorkerTurnInterleaving, OneAtATimeAndNobodyWaitsForEver) {
  expect_holds<Turns<ModelAtomic>>(2, 100, 1000);
}

TEST(WorkerTurnInterleaving, TwoThreadsMayUpdate) { expect_holds<Turns<ModelAtomic>>(3, 5, 1000); }

TEST(WorkerTurnInterleaving, WithoutOrdersATurnMissesTheOnesBefore) {
  EXPECT_EQ(explore<Turns<UnorderedAtomic>>(2, 4).broken, "a turn sees the ones before it");
}

// The worker as it sleeps and works; what is posted is done, however an update gets in between, and
// what wakes it for that does not give it the turn.
struct PostedWork : TurnScenario<ModelAtomic> {
  void run(size_t number) override {
    if (number == 0) {
      while (done.load() < 2) {
        event.Wait(-1);
        const auto guard = turn.begin();
        use();
        done.store(posted.load());
      }
    } else if (number == 1) {
      for (int i = 1; i <= 2; ++i) {
        posted.store(i);
        event.Set();
      }
    } else {
      const auto guard = turn.try_begin();
      if (guard) use();
    }
  }
  ModelAtomic<int> posted;
  ModelAtomic<int> done;
};

TEST(WorkerTurnInterleaving, WhatIsPostedIsDoneBesideAnUpdate) {
  expect_holds<PostedWork>(3, 4, 1000);
}

}  // namespace
