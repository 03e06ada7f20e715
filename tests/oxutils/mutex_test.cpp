#include "oxutils/mutex.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "tests/support/kit_sanitizer.h"

using oxutils::mutex;
using oxutils::scoped_lock;

namespace {

// These break the locking rules to see what the mutex makes of it.
bool lock(mutex& m) OX_NO_TSA { return m.lock(); }
bool unlock(mutex& m) OX_NO_TSA { return m.unlock(); }
bool try_lock(mutex& m) OX_NO_TSA { return m.try_lock(); }

bool free_for_another_thread(mutex& m) {
  bool taken = false;
  std::thread other([&] {
    taken = try_lock(m);
    if (taken) unlock(m);
  });
  other.join();
  return taken;
}

bool another_thread_can_unlock(mutex& m) {
  bool done = false;
  std::thread other([&] { done = unlock(m); });
  other.join();
  return done;
}

void guard_twice(mutex& m, bool& still_held_after_the_inner) OX_NO_TSA {
  const scoped_lock outer(m);
  { const scoped_lock inner(m); }
  still_held_after_the_inner = !free_for_another_thread(m);
}

void guard_once(mutex& m, bool& held) {
  const scoped_lock hold(m);
  held = !free_for_another_thread(m);
}

TEST(Mutex, LockExcludesOtherThreads) {
  mutex m;
  EXPECT_TRUE(lock(m));
  EXPECT_FALSE(free_for_another_thread(m));
  EXPECT_TRUE(unlock(m));
  EXPECT_TRUE(free_for_another_thread(m));
}

TEST(Mutex, RefusesASecondLockByItsOwnerInsteadOfDeadlocking) {
  mutex m;
  lock(m);
  EXPECT_FALSE(lock(m));
  unlock(m);
}

TEST(Mutex, IsHeldOnceAfterARefusedLock) {
  mutex m;
  lock(m);
  lock(m);
  unlock(m);
  EXPECT_TRUE(free_for_another_thread(m));
}

TEST(Mutex, RefusesAnUnlockByAThreadThatDoesNotHoldIt) {
  if (tarn_test::kThreadSanitizer) GTEST_SKIP() << "it reports such an unlock by itself";
  mutex m;
  EXPECT_FALSE(unlock(m));
  lock(m);
  EXPECT_FALSE(another_thread_can_unlock(m));
  EXPECT_FALSE(free_for_another_thread(m));
  unlock(m);
}

TEST(Mutex, TryLockFailsWhileItIsHeld) {
  mutex m;
  EXPECT_TRUE(try_lock(m));
  EXPECT_FALSE(try_lock(m));
  unlock(m);
}

TEST(ScopedLock, HoldsForItsBlock) {
  mutex m;
  bool held = false;
  guard_once(m, held);
  EXPECT_TRUE(held);
  EXPECT_TRUE(free_for_another_thread(m));
}

TEST(ScopedLock, InnerGuardLeavesTheOuterHold) {
  mutex m;
  bool still_held = false;
  guard_twice(m, still_held);
  EXPECT_TRUE(still_held);
  EXPECT_TRUE(free_for_another_thread(m));
}

TEST(ScopedLock, SerialisesThreads) {
  mutex m;
  int count = 0;  // plain on purpose: the lock is all that protects it
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 5000; ++round) {
        const scoped_lock hold(m);
        ++count;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(count, 20000);
}

}  // namespace
