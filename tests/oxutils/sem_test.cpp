#include "oxutils/sem.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using oxutils::sem;

namespace {

TEST(Sem, PassesAWaitAfterAPost) {
  sem s;
  s.post();
  s.wait();
}

TEST(Sem, CountsPosts) {
  sem s;
  for (int i = 0; i < 3; ++i) s.post();
  for (int i = 0; i < 3; ++i) s.wait();
}

TEST(Sem, StartsWithNothingToTake) {
  sem ready;
  sem s;
  std::atomic<bool> posted{false};
  bool posted_when_it_passed = false;
  std::thread waiter([&] {
    ready.post();
    s.wait();
    posted_when_it_passed = posted;
  });
  ready.wait();
  for (int i = 0; i < 100; ++i) std::this_thread::yield();
  posted = true;
  s.post();
  waiter.join();
  EXPECT_TRUE(posted_when_it_passed);
}

TEST(Sem, HandsDataFromThreadToThread) {
  sem filled;
  sem emptied;
  int slot = 0;  // plain on purpose: the semaphores order the accesses
  int sum = 0;
  std::thread consumer([&] {
    for (int i = 0; i < 1000; ++i) {
      filled.wait();
      sum += slot;
      emptied.post();
    }
  });
  for (int i = 1; i <= 1000; ++i) {
    slot = i;
    filled.post();
    emptied.wait();
  }
  consumer.join();
  EXPECT_EQ(sum, 500500);
}

}  // namespace
