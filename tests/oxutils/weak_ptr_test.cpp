#include "oxutils/smart_ptr/weak_ptr.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "oxutils/smart_ptr/shared_ptr.h"

using oxutils::make_shared;
using oxutils::shared_ptr;
using oxutils::weak_ptr;

namespace {

constexpr int kAlive = 0x600d;
constexpr int kGone = 0xdead;

// Tells a live object from one that is being or has been destroyed.
struct Guarded {
  explicit Guarded(std::atomic<int>& destroyed_count) : destroyed(destroyed_count) {}
  Guarded(const Guarded&) = delete;
  Guarded& operator=(const Guarded&) = delete;
  ~Guarded() {
    state = kGone;
    ++destroyed;
  }
  std::atomic<int>& destroyed;
  std::atomic<int> state{kAlive};
};

TEST(WeakPtr, IsTwoWords) { EXPECT_EQ(sizeof(weak_ptr<int>), 2 * sizeof(void*)); }

TEST(WeakPtr, IsExpiredByDefault) {
  const weak_ptr<int> weak;
  EXPECT_TRUE(weak.expired());
  EXPECT_FALSE(weak.lock());
}

TEST(WeakPtr, IsNotExpiredWhileAnOwnerLives) {
  const shared_ptr<int> owner = make_shared<int>(1);
  weak_ptr<int> weak;
  weak = owner;
  EXPECT_FALSE(weak.expired());
}

TEST(WeakPtr, AddsNoStrongCount) {
  const shared_ptr<int> owner = make_shared<int>(1);
  weak_ptr<int> weak;
  weak = owner;
  EXPECT_EQ(owner.use_count(), 1u);
}

TEST(WeakPtr, LocksACountedReference) {
  const shared_ptr<int> owner = make_shared<int>(9);
  weak_ptr<int> weak;
  weak = owner;
  const shared_ptr<int> locked = weak.lock();
  EXPECT_EQ(locked.get(), owner.get());
  EXPECT_EQ(owner.use_count(), 2u);
}

TEST(WeakPtr, LockedReferenceKeepsTheObject) {
  std::atomic<int> destroyed{0};
  shared_ptr<Guarded> owner(new Guarded(destroyed));
  weak_ptr<Guarded> weak;
  weak = owner;
  shared_ptr<Guarded> locked = weak.lock();
  owner.reset();
  EXPECT_EQ(destroyed, 0);
  EXPECT_FALSE(weak.expired());
  locked.reset();
  EXPECT_EQ(destroyed, 1);
  EXPECT_TRUE(weak.expired());
}

TEST(WeakPtr, ExpiresWithTheLastOwnerAndOutlivesIt) {
  std::atomic<int> destroyed{0};
  weak_ptr<Guarded> weak;
  {
    const shared_ptr<Guarded> owner(new Guarded(destroyed));
    weak = owner;
  }
  EXPECT_EQ(destroyed, 1);
  EXPECT_TRUE(weak.expired());
  EXPECT_FALSE(weak.lock());
}

TEST(WeakPtr, MayGoBeforeTheOwner) {
  const shared_ptr<int> owner = make_shared<int>(1);
  {
    weak_ptr<int> weak;
    weak = owner;
  }
  EXPECT_EQ(owner.use_count(), 1u);
  EXPECT_EQ(*owner, 1);
}

TEST(WeakPtr, AssignmentForgetsTheOldObject) {
  shared_ptr<int> first = make_shared<int>(1);
  const shared_ptr<int> second = make_shared<int>(2);
  weak_ptr<int> weak;
  weak = first;
  weak = second;
  first.reset();
  EXPECT_FALSE(weak.expired());
  EXPECT_EQ(*weak.lock(), 2);
}

TEST(WeakPtr, AssignmentOfTheSameObjectTwiceIsBalanced) {
  shared_ptr<int> owner = make_shared<int>(1);
  weak_ptr<int> weak;
  weak = owner;
  weak = owner;
  EXPECT_FALSE(weak.expired());
  owner.reset();
  EXPECT_TRUE(weak.expired());
}

TEST(WeakPtr, AssignmentOfAnEmptyOwnerExpires) {
  const shared_ptr<int> owner = make_shared<int>(1);
  weak_ptr<int> weak;
  weak = owner;
  weak = shared_ptr<int>();
  EXPECT_TRUE(weak.expired());
}

// Looks for the object while its last owner lets go of it. Returns whether it ever saw a dying one.
bool lock_meets_dying_object(const weak_ptr<Guarded>& weak) {
  while (true) {
    const shared_ptr<Guarded> locked = weak.lock();
    if (!locked) return false;
    if (locked->state != kAlive) return true;
  }
}

TEST(WeakPtr, LockBesideTheLastReleaseGivesALiveObjectOrNothing) {
  constexpr int kRounds = 300;
  std::atomic<int> destroyed{0};
  for (int round = 0; round < kRounds; ++round) {
    shared_ptr<Guarded> owner(new Guarded(destroyed));
    weak_ptr<Guarded> weak;
    weak = owner;
    std::atomic<int> ready{0};
    std::atomic<bool> bad{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
      threads.emplace_back([&] {
        ++ready;
        if (lock_meets_dying_object(weak)) bad = true;
      });
    }
    while (ready < 2) std::this_thread::yield();
    owner.reset();
    for (std::thread& thread : threads) thread.join();
    ASSERT_FALSE(bad);
  }
  EXPECT_EQ(destroyed, kRounds);
}

}  // namespace
