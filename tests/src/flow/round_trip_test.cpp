// RoundTrip: samples, their mean, and which segments say nothing.
#include "src/flow/round_trip.h"

#include <gtest/gtest.h>

namespace {

TEST(RoundTrip, IsNotKnownAtFirst) {
  const RoundTrip trip;
  EXPECT_EQ(trip.smooth(), 0u);
  EXPECT_EQ(trip.least(), 0u);
  EXPECT_FALSE(trip.is_measuring());
}

TEST(RoundTrip, TakesTheFirstSampleAndAnEighthOfTheOthers) {
  RoundTrip trip;
  trip.on_sent(1, 1000);
  trip.on_acknowledged(9000);
  EXPECT_EQ(trip.smooth(), 8000u);
  trip.on_sent(2, 10000);
  trip.on_acknowledged(26000);
  EXPECT_EQ(trip.smooth(), 9000u);
  EXPECT_EQ(trip.least(), 8000u);
  trip.on_sent(3, 30000);
  trip.on_acknowledged(31000);
  EXPECT_EQ(trip.smooth(), 8000u);
  EXPECT_EQ(trip.least(), 1000u);
}

TEST(RoundTrip, ASegmentThatIsSentAgainCountsWhereTheFirstOneIsMeant) {
  struct Row {
    uint64_t resent;
    uint64_t acknowledged;
    bool counts;
  };
  for (const Row& row : {Row{30, 48, true}, Row{30, 49, true}, Row{30, 50, false},
                         Row{30, 1000, false}, Row{40, 41, true}}) {
    RoundTrip trip;
    trip.on_sent(1, 0);
    trip.on_acknowledged(40);
    trip.on_sent(2, 0);
    trip.on_resent(5);
    trip.on_resent(row.resent);
    trip.on_acknowledged(row.acknowledged);
    const uint32_t sample = static_cast<uint32_t>(row.acknowledged);
    EXPECT_EQ(trip.smooth(), row.counts ? 40 - 40 / 8 + sample / 8 : 40u) << row.acknowledged;
    EXPECT_EQ(trip.least(), 40u);
    EXPECT_FALSE(trip.is_measuring());
  }
}

TEST(RoundTrip, BeginsWithASegmentThatWasSentAgainIfThereIsNoOther) {
  RoundTrip trip;
  trip.on_sent(1, 0);
  trip.on_resent(285'000);
  trip.on_acknowledged(600'000);
  EXPECT_EQ(trip.least(), 600'000u);
  trip.on_sent(2, 0);
  trip.on_resent(285'000);
  trip.on_acknowledged(300'000);
  EXPECT_EQ(trip.least(), 300'000u);
}

TEST(RoundTrip, KnowsWhatIsMeasuredAcrossTheWrap) {
  RoundTrip trip;
  trip.on_sent(65535, 0);
  EXPECT_TRUE(trip.concerns(65535));
  EXPECT_FALSE(trip.concerns(0));
  EXPECT_TRUE(trip.is_covered_by(65535));
  EXPECT_TRUE(trip.is_covered_by(3));
  EXPECT_FALSE(trip.is_covered_by(65534));
}

TEST(RoundTrip, LessThanAMicrosecondIsOne) {
  RoundTrip trip;
  trip.on_sent(1, 5);
  trip.on_acknowledged(5);
  EXPECT_EQ(trip.smooth(), 1u);
}

}  // namespace
