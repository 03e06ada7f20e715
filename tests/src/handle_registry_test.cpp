// HandleRegistry: handles, what is held meanwhile, and many threads at once.
#include "src/handle_registry.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <new>
#include <thread>
#include <vector>

namespace {

std::atomic<int> alive{0};

struct Object {
  explicit Object(void* own_handle) : handle(own_handle) { ++alive; }
  ~Object() {
    handle = nullptr;
    --alive;
  }
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  void* handle;
};

using Registry = HandleRegistry<Object>;

void* handle_of(uintptr_t number) { return reinterpret_cast<void*>(number); }

oxutils::shared_ptr<Object> make_object(void* handle) {
  return oxutils::make_shared<Object>(handle);
}

class HandleRegistryTest : public ::testing::Test {
 protected:
  HandleRegistryTest() { alive = 0; }

  bool add(uintptr_t number) {
    return registry_.add(handle_of(number), make_object(handle_of(number)));
  }

  Registry registry_;
};

TEST_F(HandleRegistryTest, FindsNothingUnderAHandleThatIsNotThere) {
  EXPECT_FALSE(registry_.hold(handle_of(1)));
  EXPECT_FALSE(registry_.hold(nullptr));
  EXPECT_FALSE(registry_.get(handle_of(1)));
  EXPECT_FALSE(registry_.remove(handle_of(1)));
}

TEST_F(HandleRegistryTest, HoldsWhatWasAdded) {
  add(1);
  add(2);
  for (int look = 0; look < 2; ++look) {  // the second one finds it in the cache
    EXPECT_EQ(registry_.hold(handle_of(1))->handle, handle_of(1));
    EXPECT_EQ(registry_.hold(handle_of(2))->handle, handle_of(2));
  }
}

TEST_F(HandleRegistryTest, TakesAHandleOnce) {
  EXPECT_TRUE(add(1));
  EXPECT_FALSE(add(1));
  EXPECT_EQ(alive, 1);
}

TEST_F(HandleRegistryTest, NullIsAHandleLikeOthers) {
  EXPECT_TRUE(add(0));
  EXPECT_TRUE(registry_.hold(nullptr));
  registry_.remove(nullptr);
  EXPECT_FALSE(registry_.hold(nullptr));
}

TEST_F(HandleRegistryTest, ObjectGoesWhenItIsRemoved) {
  add(1);
  EXPECT_TRUE(registry_.hold(handle_of(1)));
  EXPECT_TRUE(registry_.remove(handle_of(1)));
  EXPECT_EQ(alive, 0);
  EXPECT_FALSE(registry_.hold(handle_of(1)));
}

TEST_F(HandleRegistryTest, ObjectStaysUntilTheLastHoldOfItGoes) {
  add(1);
  {
    const Registry::Hold first = registry_.hold(handle_of(1));
    {
      const Registry::Hold second = registry_.hold(handle_of(1));
      registry_.remove(handle_of(1));
      EXPECT_FALSE(registry_.hold(handle_of(1)));
      EXPECT_EQ(second->handle, handle_of(1));
    }
    EXPECT_EQ(alive, 1);
    EXPECT_EQ(first->handle, handle_of(1));
  }
  EXPECT_EQ(alive, 0);
}

TEST_F(HandleRegistryTest, ObjectStaysForACountedReference) {
  add(1);
  oxutils::shared_ptr<Object> reference = registry_.get(handle_of(1));
  registry_.remove(handle_of(1));
  EXPECT_EQ(reference.use_count(), 1u);
  reference.reset();
  EXPECT_EQ(alive, 0);
}

TEST_F(HandleRegistryTest, HandleMayBeUsedAgainWhileTheOldObjectIsHeld) {
  add(1);
  const Registry::Hold old = registry_.hold(handle_of(1));
  registry_.remove(handle_of(1));

  EXPECT_TRUE(add(1));

  const Registry::Hold fresh = registry_.hold(handle_of(1));
  EXPECT_NE(&*old.pointer(), &*fresh.pointer());
  EXPECT_EQ(alive, 2);
}

TEST_F(HandleRegistryTest, EntryThatIsUsedAgainIsNotFoundUnderItsOldHandle) {
  for (uintptr_t number = 1; number < 1000; ++number) {
    add(number);
    EXPECT_TRUE(registry_.hold(handle_of(number)));
    registry_.remove(handle_of(number));
    add(number + 1000);
    EXPECT_FALSE(registry_.hold(handle_of(number)));
    EXPECT_TRUE(registry_.hold(handle_of(number + 1000)));
    registry_.remove(handle_of(number + 1000));
  }
  EXPECT_EQ(alive, 0);
}

TEST_F(HandleRegistryTest, FindsEachOfTenThousand) {
  constexpr uintptr_t kCount = 10000;
  constexpr uintptr_t kStride = 1264;  // handles are addresses of objects of some size
  for (uintptr_t i = 1; i <= kCount; ++i) ASSERT_TRUE(add(i * kStride));
  for (int look = 0; look < 2; ++look) {
    for (uintptr_t i = 1; i <= kCount; ++i) {
      ASSERT_EQ(registry_.hold(handle_of(i * kStride))->handle, handle_of(i * kStride));
    }
  }
  for (uintptr_t i = 1; i <= kCount; ++i) registry_.remove(handle_of(i * kStride));
  EXPECT_EQ(alive, 0);
}

// How many more atomics can be made; then there is no memory for them.
int atomics_left = std::numeric_limits<int>::max();

template <typename T>
struct ScarceAtomic : std::atomic<T> {
  ScarceAtomic(T value = T()) : std::atomic<T>(value) {  // NOLINT(google-explicit-constructor)
    if (atomics_left == 0) throw std::bad_alloc();
    --atomics_left;
  }
};

// Whatever it is that finds no memory, the registry is as before.
TEST_F(HandleRegistryTest, HandleThatFindsNoMemoryIsNotRegistered) {
  HandleRegistry<Object, ScarceAtomic> registry;
  const auto try_to_add = [&registry](void* handle) {
    try {
      return registry.add(handle, make_object(handle));
    } catch (const std::bad_alloc&) {
      return false;
    }
  };
  int refused = 0;
  for (uintptr_t number = 1; number <= 1000; ++number) {
    void* const handle = handle_of(number);
    atomics_left = 0;
    for (int more = 1; !try_to_add(handle); more *= 2) {
      ++refused;
      ASSERT_FALSE(registry.hold(handle));
      ASSERT_FALSE(registry.remove(handle));
      atomics_left = more;
    }
    ASSERT_EQ(registry.hold(handle)->handle, handle);
  }
  atomics_left = std::numeric_limits<int>::max();
  EXPECT_GT(refused, 50);
  EXPECT_EQ(alive, 1000);
}

// Two threads add and remove, two hold: whatever is held lives, and is what was asked for.
TEST_F(HandleRegistryTest, WhatIsHeldLivesWhileOthersRemoveIt) {
  constexpr uintptr_t kHandles = 3;  // few, so that they meet
  constexpr int kRounds = 20000;
  std::atomic<int> failures{0};
  std::atomic<bool> done{false};
  std::vector<std::thread> changing;
  std::vector<std::thread> holding;
  for (uintptr_t which = 0; which < 2; ++which) {
    changing.emplace_back([this, which] {
      for (int i = 0; i < kRounds; ++i) {
        const uintptr_t number = 1 + (static_cast<uintptr_t>(i) + which) % kHandles;
        if (!add(number)) registry_.remove(handle_of(number));
      }
    });
    holding.emplace_back([&] {
      for (uintptr_t i = 0; !done; ++i) {
        void* const handle = handle_of(1 + i % kHandles);
        const Registry::Hold hold = registry_.hold(handle);
        if (hold && hold->handle != handle) ++failures;
      }
    });
  }
  for (std::thread& each : changing) each.join();
  done = true;
  for (std::thread& each : holding) each.join();

  for (uintptr_t number = 1; number <= kHandles; ++number) registry_.remove(handle_of(number));
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(alive, 0);
}

}  // namespace
