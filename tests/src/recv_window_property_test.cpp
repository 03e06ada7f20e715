// RecvWindow: any order of arrival, and whatever a peer may send before number 0.
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "tarn/tarn.h"
#include "tests/support/kit_recv.h"

using tarn_test::kFirst;
using tarn_test::kLast;
using tarn_test::kMiddle;
using tarn_test::kWhole;
using Texts = std::vector<std::string>;

namespace {

struct Segment {
  unsigned short seq;
  std::string payload;
  unsigned char flag;
};

struct Limit {
  explicit Limit(unsigned size) { tarn_config_recv_window_size(size); }
  ~Limit() { tarn_config_recv_window_size(32); }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;
};

unsigned char flag_of(size_t index, size_t count) {
  if (count == 1) return kWhole;
  if (index == 0) return kFirst;
  return index + 1 == count ? kLast : kMiddle;
}

// Cuts messages of `counts[i]` fragments; number `first` goes to the first fragment.
std::vector<Segment> cut(const std::vector<size_t>& counts, int first, Texts& messages) {
  std::vector<Segment> segments;
  for (size_t m = 0; m < counts.size(); ++m) {
    std::string whole;
    for (size_t i = 0; i < counts[m]; ++i) {
      const std::string payload = "m" + std::to_string(m) + "f" + std::to_string(i) + " ";
      const size_t seq = static_cast<size_t>(first) + segments.size();
      segments.push_back({static_cast<unsigned short>(seq), payload, flag_of(i, counts[m])});
      whole += payload;
    }
    messages.push_back(whole);
  }
  return segments;
}

// Arrival in any order with repeats and losses, then re-sending in order, until all is taken.
void feed(tarn_test::Receiver& receiver, const std::vector<Segment>& segments) {
  const auto arrivals =
      *rc::gen::container<std::vector<size_t>>(rc::gen::inRange<size_t>(0, segments.size()));
  for (const size_t i : arrivals) {
    receiver.input(segments[i].seq, segments[i].payload, segments[i].flag);
  }
  for (const Segment& segment : segments) {
    RC_ASSERT(receiver.input(segment.seq, segment.payload, segment.flag));
  }
}

std::vector<size_t> any_messages() {
  return *rc::gen::nonEmpty(
      rc::gen::container<std::vector<size_t>>(rc::gen::inRange<size_t>(1, 6)));
}

TEST(RecvWindowProperty, DeliversEachMessageOnceInOrderAndWhole) {
  EXPECT_TRUE(rc::check([] {
    const Limit limit(*rc::gen::inRange(1u, 40u));
    Texts messages;
    const std::vector<Segment> segments = cut(any_messages(), 0, messages);
    tarn_test::Receiver receiver;
    feed(receiver, segments);
    RC_ASSERT(receiver.messages == messages);
    RC_ASSERT(receiver.una() == segments.back().seq);
    RC_ASSERT(receiver.acks().empty());
  }));
}

TEST(RecvWindowProperty, DeliversAcrossTheWrap) {
  EXPECT_TRUE(rc::check([] {
    const int first = *rc::gen::inRange(65500, 65537);
    Texts messages;
    const std::vector<Segment> segments = cut(any_messages(), first, messages);
    tarn_test::Receiver receiver;
    receiver.input(0);
    DataView filler = tarn_test::owned_view("filler");
    receiver.window.output(static_cast<unsigned short>(first - 1), filler);
    receiver.take();
    feed(receiver, segments);
    RC_ASSERT(receiver.messages == messages);
  }));
}

TEST(RecvWindowProperty, ListsExactlyTheEarlyArrivalsItHolds) {
  EXPECT_TRUE(rc::check([] {
    tarn_test::Receiver receiver;
    receiver.input(0);
    std::set<int> held;
    int next = 1;
    const auto arrivals = *rc::gen::container<std::vector<int>>(rc::gen::inRange(1, 30));
    for (const int seq : arrivals) {
      receiver.input(seq);
      if (seq >= next) held.insert(seq);
      while (held.count(next) != 0) held.erase(next++);
    }
    const std::vector<int> acks = receiver.acks();
    RC_ASSERT(std::set<int>(acks.begin(), acks.end()) == held);
    RC_ASSERT(receiver.messages.size() == static_cast<size_t>(next));
  }));
}

// Numbers from the whole ring may wait for number 0; that is more than their order can tell apart.
TEST(RecvWindowProperty, SurvivesAnyNumbersBeforeNumber0) {
  EXPECT_TRUE(rc::check([] {
    const Limit limit(1000);
    tarn_test::Receiver receiver;
    const auto early = *rc::gen::arbitrary<std::vector<unsigned short>>();
    for (const unsigned short seq : early) {
      if (seq != 0) receiver.input(seq);
    }
    RC_ASSERT(receiver.messages.empty());
    Texts expected;
    for (int seq = 0; seq < 50; ++seq) {
      receiver.input(seq);
      if (receiver.messages.size() < static_cast<size_t>(seq) + 1) RC_FAIL("not delivered");
    }
    for (size_t seq = 0; seq < receiver.messages.size(); ++seq) {
      expected.push_back(std::to_string(seq));
    }
    RC_ASSERT(receiver.messages == expected);
  }));
}

// Sends the whole ring in order and then its start once more.
void walk_the_ring(tarn_test::Receiver& receiver) {
  for (int seq = 0; seq < 65536; ++seq) receiver.input(seq);
}

Texts ring_texts() {
  Texts texts;
  for (int seq = 0; seq < 65536; ++seq) texts.push_back(std::to_string(seq));
  return texts;
}

TEST(RecvWindowRing, DeliversTheWholeRingWhateverWaitedBefore) {
  const Limit limit(1000);
  tarn_test::Receiver receiver;
  // 2 before 20000 before 45000 before 2: an order that runs in a circle.
  for (const int seq : {20000, 2, 45000, 45001, 45002, 45003, 45004, 45005, 45006, 45007, 45008,
                        45009, 1, 32769, 60000, 3}) {
    receiver.input(seq);
  }
  walk_the_ring(receiver);
  EXPECT_EQ(receiver.take(), ring_texts());
}

TEST(RecvWindowRing, DirectDeliveryLeavesNoStaleCopy) {
  const Limit limit(1000);
  tarn_test::Receiver receiver;
  for (const int seq :
       {20000, 2, 45000, 45001, 45002, 45003, 45004, 45005, 45006, 45007, 45008, 45009, 1}) {
    receiver.input(seq, "stale " + std::to_string(seq));
  }
  walk_the_ring(receiver);
  receiver.take();
  for (int seq = 0; seq < 4; ++seq) receiver.input(seq);
  EXPECT_EQ(receiver.take(), (Texts{"0", "1", "2", "3"})) << "from the first time round";
  const Limit room_for_one(1);
  EXPECT_TRUE(receiver.input(10)) << "something still waits";
}

TEST(RecvWindowRing, DeliveryFromACallbackLeavesNoStaleCopy) {
  tarn_test::Receiver receiver;
  receiver.on_delivery = [&](const std::string& text) {
    if (text == "1") receiver.input(2);
  };
  receiver.input(0);
  receiver.input(2, "stale 2");
  receiver.input(1);
  receiver.on_delivery = nullptr;
  for (int seq = 3; seq < 65536; ++seq) receiver.input(seq);
  receiver.take();
  for (int seq = 0; seq < 4; ++seq) receiver.input(seq);
  EXPECT_EQ(receiver.take(), (Texts{"0", "1", "2", "3"})) << "from the first time round";
}

TEST(RecvWindowRing, DirectDeliveryLeavesTheNumberHalfTheRingAway) {
  tarn_test::Receiver receiver;
  receiver.input(32769, "waiting");
  for (int seq = 0; seq <= 32767; ++seq) receiver.input(seq);
  receiver.take();
  receiver.input(32768);
  EXPECT_EQ(receiver.take(), (Texts{"32768", "waiting"}));
}

}  // namespace
