// Outstanding: what is acknowledged in any order, across the wrap of the numbers.
#include "src/flow/outstanding.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace {

void add(Outstanding& outstanding, size_t count, uint32_t now = 0) {
  outstanding.reserve(count);
  for (size_t i = 0; i < count; ++i) outstanding.add(now);
}

TEST(Outstanding, NumbersFollowEachOther) {
  Outstanding outstanding(65534);
  add(outstanding, 3);
  EXPECT_EQ(outstanding.oldest(), 65534);
  EXPECT_EQ(outstanding.next(), 1);
  EXPECT_EQ(outstanding.count(), 3u);
  EXPECT_EQ(outstanding.span(), 3u);
}

TEST(Outstanding, OnesInTheMiddleLeaveTheSpan) {
  Outstanding outstanding;
  add(outstanding, 4);
  EXPECT_TRUE(outstanding.remove(1));
  EXPECT_TRUE(outstanding.remove(2));
  EXPECT_EQ(outstanding.count(), 2u);
  EXPECT_EQ(outstanding.span(), 4u);

  EXPECT_TRUE(outstanding.remove(0));
  EXPECT_EQ(outstanding.oldest(), 3);
  EXPECT_EQ(outstanding.span(), 1u);
}

TEST(Outstanding, WhatIsNotOutstandingIsNotRemoved) {
  Outstanding outstanding(10);
  add(outstanding, 3);
  EXPECT_TRUE(outstanding.remove(11));
  for (const uint16_t seq : {9, 11, 13, 10 + 0x8000}) EXPECT_FALSE(outstanding.remove(seq)) << seq;
  EXPECT_EQ(outstanding.count(), 2u);
}

TEST(Outstanding, UpToANumber) {
  struct Row {
    uint16_t una;
    bool is_taken;
    uint32_t count;
    uint16_t oldest;
  };
  // Of 10 to 14, 12 has been acknowledged.
  for (const Row& row : {Row{9, true, 4, 10}, Row{10, true, 3, 11}, Row{11, true, 2, 13},
                         Row{14, true, 0, 15}, Row{15, false, 4, 10}, Row{8, false, 4, 10},
                         Row{static_cast<uint16_t>(10 + 0x8000), false, 4, 10}}) {
    Outstanding outstanding(10);
    add(outstanding, 5);
    outstanding.remove(12);
    EXPECT_EQ(outstanding.is_una(row.una), row.is_taken) << row.una;
    if (row.is_taken) outstanding.remove_up_to(row.una);
    EXPECT_EQ(outstanding.count(), row.count) << row.una;
    EXPECT_EQ(outstanding.oldest(), row.oldest) << row.una;
  }
}

TEST(Outstanding, TheOldestOnesAge) {
  Outstanding outstanding;
  EXPECT_EQ(outstanding.oldest_ms(1000), 0u);
  add(outstanding, 1, 0xFFFFFFF0);
  add(outstanding, 1, 10);
  EXPECT_EQ(outstanding.oldest_ms(20), 36u);
  outstanding.remove(0);
  EXPECT_EQ(outstanding.oldest_ms(20), 10u);
}

TEST(Outstanding, CanBeginWithWhatWasTakenBefore) {
  Outstanding outstanding(2, {65535, 1}, 7);
  EXPECT_EQ(outstanding.oldest(), 65535);
  EXPECT_EQ(outstanding.count(), 2u);
  EXPECT_EQ(outstanding.span(), 3u);
  EXPECT_FALSE(outstanding.remove(0));
  EXPECT_EQ(outstanding.oldest_ms(9), 2u);
}

TEST(Outstanding, TakesInWhatWasUnderWayBefore) {
  Outstanding outstanding(10);
  add(outstanding, 2);
  outstanding.adopt(7, 0);
  EXPECT_EQ(outstanding.oldest(), 7);
  EXPECT_EQ(outstanding.count(), 3u);
  EXPECT_EQ(outstanding.span(), 5u);
  outstanding.adopt(7, 0);
  EXPECT_EQ(outstanding.count(), 3u);
  EXPECT_FALSE(outstanding.remove(8));
  outstanding.adopt(8, 0);
  EXPECT_TRUE(outstanding.remove(7));
  EXPECT_EQ(outstanding.oldest(), 8);
}

TEST(Outstanding, KeepsOnlyWhatOthersStillKnow) {
  Outstanding outstanding(65534);
  add(outstanding, 5);
  outstanding.keep_only({0, 65535, 0, 77});
  EXPECT_EQ(outstanding.count(), 2u);
  EXPECT_EQ(outstanding.oldest(), 65535);
  EXPECT_TRUE(outstanding.remove(0));
  EXPECT_FALSE(outstanding.remove(1));
}

TEST(Outstanding, LetsGoWhatASendWindowWouldForAnyNumber) {
  Outstanding outstanding(10);
  add(outstanding, 3);
  outstanding.remove_all_but_later(9);
  EXPECT_EQ(outstanding.count(), 3u);
  outstanding.remove_all_but_later(11);
  EXPECT_EQ(outstanding.oldest(), 12);
  outstanding.remove_all_but_later(1000);
  EXPECT_EQ(outstanding.count(), 0u);
}

TEST(Outstanding, CountsWhatIsOlder) {
  Outstanding outstanding;
  for (uint32_t tick = 0; tick < 5; ++tick) add(outstanding, 1, tick);
  outstanding.remove(1);
  EXPECT_EQ(outstanding.older_than(10, 10), 0u);
  EXPECT_EQ(outstanding.older_than(7, 10), 2u);
  EXPECT_EQ(outstanding.older_than(0, 10), 4u);
}

TEST(Outstanding, AgreesWithASet) {
  for (unsigned seed = 0; seed < 50; ++seed) {
    std::mt19937 random(seed);
    const auto first = static_cast<uint16_t>(random());
    Outstanding outstanding(first);
    std::set<uint32_t> expected;  // counted from the first
    uint32_t next = 0;
    for (int step = 0; step < 3000; ++step) {
      if (random() % 2 == 0 && expected.size() < 300) {
        add(outstanding, 1);
        expected.insert(next++);
      } else if (next > 0) {
        const uint32_t index = next - 1 - random() % std::min(next, 400U);
        const bool is_there = expected.erase(index) != 0;
        ASSERT_EQ(outstanding.remove(static_cast<uint16_t>(first + index)), is_there);
      }
      ASSERT_EQ(outstanding.count(), expected.size());
      const uint32_t oldest = expected.empty() ? next : *expected.begin();
      ASSERT_EQ(outstanding.oldest(), static_cast<uint16_t>(first + oldest));
    }
  }
}

}  // namespace
