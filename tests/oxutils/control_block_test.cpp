#include "oxutils/smart_ptr/control_block.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using oxutils::ControlBlock;

namespace {

TEST(ControlBlock, StartsWithOneStrongOwner) {
  ControlBlock block;
  EXPECT_EQ(block.ref_count(), 1u);
}

TEST(ControlBlock, ReturnsTheNewStrongCount) {
  ControlBlock block;
  EXPECT_EQ(block.inc_ref(), 2u);
  EXPECT_EQ(block.inc_ref(), 3u);
  EXPECT_EQ(block.dec_ref(), 2u);
  EXPECT_EQ(block.dec_ref(), 1u);
  EXPECT_EQ(block.dec_ref(), 0u);
}

TEST(ControlBlock, StartsWithOneWeakCountForAllStrongOwners) {
  ControlBlock block;
  EXPECT_EQ(block.inc_weak(), 2u);
  EXPECT_EQ(block.dec_weak(), 1u);
  EXPECT_EQ(block.dec_weak(), 0u);
}

TEST(ControlBlock, KeepsTheTwoCountsApart) {
  ControlBlock block;
  block.inc_weak();
  EXPECT_EQ(block.ref_count(), 1u);
  block.inc_ref();
  EXPECT_EQ(block.dec_weak(), 1u);
}

TEST(ControlBlock, CountsFromManyThreadsWithoutLoss) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 5000;
  ControlBlock block;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&block] {
      for (int round = 0; round < kRounds; ++round) {
        block.inc_ref();
        block.inc_weak();
        block.inc_ref();
        block.dec_ref();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(block.ref_count(), 1u + kThreads * kRounds);
  EXPECT_EQ(block.inc_weak(), 2u + kThreads * kRounds);
}

}  // namespace
