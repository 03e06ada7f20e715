// AckList: order, repeats, removal and the cap.
#include "src/ack_list.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

using Seqs = std::vector<unsigned short>;

constexpr size_t kCap = 32767;

Seqs take(AckList& list, size_t count) {
  Seqs taken;
  list.take(count, taken);
  return taken;
}
Seqs take_all(AckList& list) { return take(list, list.size()); }

TEST(AckList, IsEmptyAtFirst) {
  AckList list;
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(take_all(list), Seqs{});
}

TEST(AckList, KeepsTheOrderOfArrivalAndRepeats) {
  AckList list;
  for (const unsigned short seq : {5, 3, 5, 65535, 3}) list.add(seq);
  EXPECT_EQ(list.size(), 5u);
  EXPECT_EQ(take_all(list), (Seqs{5, 3, 5, 65535, 3}));
  EXPECT_TRUE(list.empty());
}

TEST(AckList, GivesTheOldestAndKeepsTheRest) {
  AckList list;
  for (const unsigned short seq : {5, 3, 5, 4, 3}) list.add(seq);
  EXPECT_EQ(take(list, 3), (Seqs{5, 3, 5}));
  EXPECT_EQ(take(list, 0), Seqs{});
  list.add(9);
  EXPECT_EQ(take_all(list), (Seqs{4, 3, 9}));
}

TEST(AckList, RemovesEveryOccurrence) {
  AckList list;
  for (const unsigned short seq : {5, 3, 5, 4, 3}) list.add(seq);
  list.remove(3);
  list.remove(7);
  EXPECT_EQ(list.size(), 3u);
  EXPECT_EQ(take_all(list), (Seqs{5, 5, 4}));
}

TEST(AckList, ListsAgainWhatWasRemoved) {
  AckList list;
  for (const unsigned short seq : {5, 3}) list.add(seq);
  list.remove(5);
  list.add(5);
  EXPECT_EQ(take_all(list), (Seqs{3, 5}));
}

TEST(AckList, HoldsNoMoreThanASegmentCanName) {
  AckList list;
  for (size_t i = 0; i < kCap; ++i) list.add(2);
  list.add(5);
  EXPECT_EQ(list.size(), kCap);
  const Seqs taken = take_all(list);
  EXPECT_EQ(std::count(taken.begin(), taken.end(), 2), static_cast<long>(kCap));
}

TEST(AckList, WhatWasRemovedTakesNoRoom) {
  AckList list;
  for (size_t i = 0; i < kCap; ++i) list.add(i == 0 ? 7 : 2);
  list.remove(2);
  EXPECT_EQ(list.size(), 1u);
  for (size_t i = 0; i < kCap; ++i) list.add(4);
  EXPECT_EQ(list.size(), kCap);
  const Seqs taken = take_all(list);
  EXPECT_EQ(taken.front(), 7);
  EXPECT_EQ(std::count(taken.begin(), taken.end(), 4), static_cast<long>(kCap) - 1);
}

// One place is freed and filled again in a full list, all the time. Walking the list for each would
// take minutes.
TEST(AckList, StaysFastWhenItStaysFull) {
  AckList list;
  for (size_t i = 0; i < kCap - 1; ++i) list.add(2);
  list.add(3);
  for (int i = 0; i < 1'000'000; ++i) {
    list.remove(static_cast<unsigned short>(3 + i % 60000));
    list.add(static_cast<unsigned short>(3 + (i + 1) % 60000));
  }
  EXPECT_EQ(list.size(), kCap);
}

// A plain vector that is searched, beside it.
TEST(AckList, AgreesWithAPlainVector) {
  std::mt19937 random(20250319);
  for (const unsigned int numbers : {4u, 40u, 65536u}) {
    AckList list;
    Seqs model;
    for (int step = 0; step < 100'000; ++step) {
      const auto seq = static_cast<unsigned short>(random() % numbers);
      const unsigned int dice = random() % 100;
      if (dice < 60) {
        list.add(seq);
        model.push_back(seq);
      } else if (dice < 90) {
        const unsigned short gone =
            model.empty() || dice < 65 ? seq : model[random() % model.size()];
        list.remove(gone);
        model.erase(std::remove(model.begin(), model.end(), gone), model.end());
      } else {
        const size_t count = random() % (std::min<size_t>(model.size(), 20) + 1);
        const auto end = model.begin() + static_cast<std::ptrdiff_t>(count);
        ASSERT_EQ(take(list, count), Seqs(model.begin(), end)) << "step " << step;
        model.erase(model.begin(), end);
      }
      ASSERT_EQ(list.size(), model.size()) << "step " << step;
    }
    EXPECT_EQ(take_all(list), model);
  }
}

}  // namespace
