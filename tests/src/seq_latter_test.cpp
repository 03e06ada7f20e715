#include "src/seq_latter.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <vector>

#include "src/packet.h"

namespace {

using Seq = unsigned short;

bool precedes(int a, int b) { return SeqLatter()(static_cast<Seq>(a), static_cast<Seq>(b)); }

TEST(SeqLatter, PutsANumberBeforeItsSuccessor) {
  EXPECT_TRUE(precedes(0, 1));
  EXPECT_FALSE(precedes(1, 0));
}

TEST(SeqLatter, OrdersAcrossTheWrap) {
  EXPECT_TRUE(precedes(65535, 0));
  EXPECT_FALSE(precedes(0, 65535));
  EXPECT_TRUE(precedes(65000, 100));
}

TEST(SeqLatter, DoesNotPutANumberBeforeItself) {
  EXPECT_FALSE(precedes(7, 7));
  EXPECT_FALSE(precedes(0, 0));
  EXPECT_FALSE(precedes(65535, 65535));
}

TEST(SeqLatter, ReachesHalfTheRing) {
  EXPECT_TRUE(precedes(0, 32767));
  EXPECT_FALSE(precedes(0, 32769));
  EXPECT_TRUE(precedes(32769, 0));
}

TEST(SeqLatter, TakesNumbersHalfTheRingApartForEqual) {
  EXPECT_FALSE(precedes(0, 32768));
  EXPECT_FALSE(precedes(32768, 0));
  EXPECT_FALSE(precedes(40000, 7232));
  EXPECT_FALSE(precedes(7232, 40000));
}

TEST(SeqLatter, IsADistanceOf1To32767) {
  EXPECT_TRUE(rc::check([](Seq a, Seq distance) {
    const int b = a + distance;
    RC_ASSERT(precedes(a, b) == (distance >= 1 && distance <= 32767));
  }));
}

TEST(SeqLatter, NeverOrdersBothWays) {
  EXPECT_TRUE(rc::check([](Seq a, Seq b) { RC_ASSERT(!(precedes(a, b) && precedes(b, a))); }));
}

TEST(SeqLatter, IsTransitiveWithinHalfTheRing) {
  EXPECT_TRUE(rc::check([] {
    const auto a = *rc::gen::arbitrary<Seq>();
    const auto first = *rc::gen::inRange(1, 16000);
    const auto second = *rc::gen::inRange(1, 16000);
    RC_ASSERT(precedes(a, a + first));
    RC_ASSERT(precedes(a + first, a + first + second));
    RC_ASSERT(precedes(a, a + first + second));
  }));
}

TEST(SeqLatter, KeepsAMapInWrapAroundOrder) {
  std::map<Seq, Packet, SeqLatter> packets;
  for (const int seq : {1, 65534, 0, 65535, 2}) packets[static_cast<Seq>(seq)];
  std::vector<Seq> order;
  for (const auto& entry : packets) order.push_back(entry.first);
  EXPECT_EQ(order, (std::vector<Seq>{65534, 65535, 0, 1, 2}));
}

TEST(Packet, IsDefaultConstructible) {
  const Packet packet;
  EXPECT_EQ(packet.data.size(), 0u);
}

}  // namespace
