// TryFlag: one thread is inside at a time, and sees what was done there before.
#include "src/try_flag.h"
#include "tests/interleave/model_atomic.h"
#include "tests/interleave/scenarios.h"

using namespace tarn_test;

namespace {

template <template <typename> class Atomic>
struct Entries : Scenario {
  using Flag = TryFlag<Atomic<bool>>;

  void run(size_t) override {
    for (int i = 0; i < 2; ++i) {
      const typename Flag::Entry entry(flag);
      if (entry) use();
    }
  }
  void finish() override {
    expect(entries > 0, "the first one gets in");
    expect(bool(typename Flag::Entry(flag)), "nobody stays inside");
  }

  void use() {
    expect(!is_inside, "one thread at a time");
    is_inside = true;
    const int before = uses.load(std::memory_order_relaxed);
    expect(before == entries, "who enters sees what was done before");
    uses.store(before + 1, std::memory_order_relaxed);
    ++entries;
    is_inside = false;
  }

  Flag flag;
  ModelAtomic<int> uses;
  int entries = 0;
  bool is_inside = false;
};

TEST(TryFlagInterleaving, OneAtATimeAndNobodyStaysInside) {
  expect_holds<Entries<ModelAtomic>>(2, 100, 100);
}

TEST(TryFlagInterleaving, ThreeThreads) { expect_holds<Entries<ModelAtomic>>(3, 4, 1000); }

TEST(TryFlagInterleaving, WithoutOrdersAnEntryMissesTheOnesBefore) {
  EXPECT_EQ(explore<Entries<UnorderedAtomic>>(2, 2).broken, "who enters sees what was done before");
}

}  // namespace
