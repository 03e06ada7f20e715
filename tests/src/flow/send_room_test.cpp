// SendRoom and RefusedSends: who may send, and when who could not is told.
#include "src/flow/send_room.h"

#include <gtest/gtest.h>

#include "src/flow/refused_sends.h"

namespace {

// Segments of 100 bytes, a window of 8, nothing under way.
SendRoom idle() { return SendRoom{100, 8, SendRoom::kMostAhead, 0, 0, 0, 0, true}; }

SendRoom with_outstanding(uint32_t count) {
  SendRoom room = idle();
  room.outstanding = room.span = count;
  return room;
}

TEST(SendRoom, WithoutAQueueIsWhatTheWindowHas) {
  for (uint32_t count = 0; count <= 8; ++count) {
    EXPECT_EQ(with_outstanding(count).free_segments(), 8 - count);
    EXPECT_EQ(with_outstanding(count).bytes(), (8 - count) * 100u);
  }
}

TEST(SendRoom, AWindowThatHasShrunkHasNone) {
  EXPECT_EQ(with_outstanding(9).free_segments(), 0u);
  EXPECT_EQ(with_outstanding(9).bytes(), 0u);
}

TEST(SendRoom, EndsSoFarAheadOfTheOldest) {
  SendRoom room = with_outstanding(1);
  room.ahead = 3;
  for (const uint32_t span : {1, 2, 3}) {
    room.span = span;
    EXPECT_EQ(room.free_segments(), 4 - span);
  }
  room.span = 4;
  EXPECT_EQ(room.free_segments(), 0u);
  room.span = 5;
  EXPECT_EQ(room.free_segments(), 0u);
}

TEST(SendRoom, AQueueTakesWhatTheWindowDoesNot) {
  SendRoom room = with_outstanding(6);
  room.queue = 50;
  EXPECT_EQ(room.bytes(), 250u);
}

TEST(SendRoom, BehindWhatWaitsThereIsTheQueueOnly) {
  SendRoom room = with_outstanding(6);
  room.queue = 50;
  room.queued = 20;
  room.is_queue_empty = false;
  EXPECT_EQ(room.bytes(), 30u);
  room.queued = 60;
  EXPECT_EQ(room.bytes(), 0u) << "it has shrunk";
}

TEST(SendRoom, WhoIsAloneMaySendWhatIsEverTaken) {
  SendRoom room = idle();
  room.ahead = 3;
  room.queue = 50;
  EXPECT_EQ(room.most_bytes(), 850u);
  EXPECT_EQ(room.bytes(), 850u);
}

TEST(SendRoom, WithoutASegmentSizeThereIsNone) {
  SendRoom room = idle();
  room.segment_size = 0;
  room.queue = 50;
  EXPECT_EQ(room.most_bytes(), 0u);
  EXPECT_EQ(room.bytes(), 0u);
}

TEST(SendRoom, IsHalfFreeWithHalfOfEverything) {
  EXPECT_TRUE(with_outstanding(4).is_half_free());
  EXPECT_FALSE(with_outstanding(5).is_half_free());
  SendRoom room = with_outstanding(8);
  room.queue = 1000;
  room.is_queue_empty = false;
  room.queued = 100;
  EXPECT_TRUE(room.is_half_free());
  room.queued = 101;
  EXPECT_FALSE(room.is_half_free());
}

TEST(RefusedSends, NobodyIsToldWhoWasNotRefused) {
  RefusedSends refused;
  EXPECT_FALSE(refused.take(idle()));
}

TEST(RefusedSends, AreToldOnce) {
  RefusedSends refused;
  refused.add(100);
  refused.add(100);
  EXPECT_TRUE(refused.take(idle()));
  EXPECT_FALSE(refused.take(idle()));
}

TEST(RefusedSends, WaitForHalfOfTheRoom) {
  RefusedSends refused;
  refused.add(1);
  EXPECT_FALSE(refused.take(with_outstanding(5)));
  EXPECT_TRUE(refused.take(with_outstanding(4)));
}

TEST(RefusedSends, WaitUntilTheSmallestFits) {
  RefusedSends refused;
  refused.add(700);
  refused.add(600);
  EXPECT_FALSE(refused.take(with_outstanding(3)));
  EXPECT_TRUE(refused.take(with_outstanding(2)));
}

TEST(RefusedSends, WhatCannotFitAnyMoreWaitsForAllTheRoom) {
  RefusedSends refused;
  refused.add(5000);
  EXPECT_FALSE(refused.take(with_outstanding(1)));
  EXPECT_TRUE(refused.take(idle()));
}

}  // namespace
