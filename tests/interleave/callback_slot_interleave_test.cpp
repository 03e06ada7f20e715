// CallbackSlot: whoever reads gets the pair of one set().
#include <cstdint>

#include "src/callback_slot.h"
#include "tests/interleave/model_atomic.h"
#include "tests/interleave/scenarios.h"

using namespace tarn_test;

namespace {

using Function = int (*)(int);

int first_function(int number) { return number; }
int second_function(int number) { return number + 1; }
int third_function(int number) { return number + 2; }

constexpr Function kFunctions[] = {nullptr, first_function, second_function, third_function};
int users[4];

template <template <typename> class Atomic>
struct Slot {
  void set(size_t which) { slot.set(kFunctions[which], which == 0 ? nullptr : &users[which]); }
  // Which of the four; a pair that was never set breaks the rule.
  size_t get() const {
    const auto pair = slot.get();
    for (size_t which = 0; which < 4; ++which) {
      if (pair.function != kFunctions[which]) continue;
      expect(pair.user == (which == 0 ? nullptr : &users[which]), "a pair is of one set()");
      return which;
    }
    return 0;
  }
  CallbackSlot<Function, Atomic> slot;
};

template <template <typename> class Atomic>
struct ReadBesideTwoChanges : Scenario {
  void run(size_t number) override {
    if (number == 0) {
      slot.set(1);
      slot.set(2);
    } else {
      const size_t earlier = slot.get();
      const size_t later = slot.get();
      expect(later >= earlier, "an older pair does not come back");
    }
  }
  void finish() override { expect(slot.get() == 2, "the last one stays"); }
  Slot<Atomic> slot;
};

TEST(CallbackSlotInterleaving, AReaderBesideTwoChangesGetsAPair) {
  expect_holds<ReadBesideTwoChanges<ModelAtomic>>(2, 5, 10000);
}

TEST(CallbackSlotInterleaving, WithoutOrdersAPairIsTorn) {
  EXPECT_EQ(explore<ReadBesideTwoChanges<UnorderedAtomic>>(2, 5).broken, "a pair is of one set()");
}

struct TwoWriters : Scenario {
  void run(size_t number) override {
    if (number == 2) {
      slot.get();
      return;
    }
    slot.set(1 + number);
    expect(slot.get() != 0, "what has been set is seen");
  }
  void finish() override { expect(slot.get() != 0, "one of the two stays"); }
  Slot<ModelAtomic> slot;
};

TEST(CallbackSlotInterleaving, WritersTakeTurns) { expect_holds<TwoWriters>(3, 3, 10000); }

}  // namespace
