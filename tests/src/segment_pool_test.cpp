// SegmentPool: what it keeps, and for how long.
#include "src/segment_pool.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// Where the memory of `count` segments is that the pool gives now; they come back to it.
std::vector<const char*> addresses(SegmentPool& pool, size_t count, size_t size) {
  std::vector<SegmentNode> segments = pool.take(count, size);
  std::vector<const char*> places;
  for (const SegmentNode& segment : segments) places.push_back(segment.mapped().data());
  for (size_t i = segments.size(); i > 0; --i) pool.give(std::move(segments[i - 1]));
  return places;
}

TEST(SegmentPool, GivesSegmentsOfTheSizeAskedFor) {
  SegmentPool pool;
  EXPECT_EQ(pool.take(100).mapped().size(), 100u);
  const std::vector<SegmentNode> segments = pool.take(3, 50);
  ASSERT_EQ(segments.size(), 3u);
  for (const SegmentNode& segment : segments) EXPECT_EQ(segment.mapped().size(), 50u);
}

TEST(SegmentPool, UsesAgainWhatCameBackHoweverMany) {
  SegmentPool pool;
  const std::vector<const char*> before = addresses(pool, 1000, 100);
  EXPECT_EQ(addresses(pool, 1000, 100), before);
}

TEST(SegmentPool, OneByOneAsWell) {
  SegmentPool pool;
  SegmentNode segment = pool.take(100);
  const char* const place = segment.mapped().data();
  pool.give(std::move(segment));
  EXPECT_EQ(pool.take(60).mapped().data(), place);
}

TEST(SegmentPool, LetsGoWhatNobodyNeededForAWhile) {
  SegmentPool pool;
  const std::vector<const char*> before = addresses(pool, 8, 100);
  pool.settle();  // all eight were made since the beginning
  addresses(pool, 3, 100);
  pool.settle();  // five were not needed
  std::vector<SegmentNode> kept = pool.take(3, 100);
  EXPECT_EQ(kept[0].mapped().data(), before[0]);
  EXPECT_EQ(kept[2].mapped().data(), before[2]);
}

TEST(SegmentPool, KeepsNothingOnceItIsCleared) {
  SegmentPool pool;
  SegmentNode out = pool.take(100);
  addresses(pool, 4, 100);
  pool.clear();
  pool.give(std::move(out));  // there is no room for it any more: a leak would show
  EXPECT_EQ(pool.take(10).mapped().size(), 10u);
}

TEST(SegmentBytes, KeepItsMemoryForWhatFillsHalfOfIt) {
  SegmentBytes bytes(1000);
  const char* const memory = bytes.data();
  bytes.resize(500);
  EXPECT_EQ(bytes.data(), memory);
  bytes.resize(1000);
  EXPECT_EQ(bytes.data(), memory);
  bytes.resize(499);
  bytes.resize(500);
  EXPECT_EQ(bytes.size(), 500u);
}

TEST(SegmentBytes, MayBeEmpty) {
  const SegmentBytes none(0);
  EXPECT_EQ(none.size(), 0u);
  const SegmentBytes never;
  EXPECT_EQ(never.data(), nullptr);
}

}  // namespace
