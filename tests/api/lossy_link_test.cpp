// Two real sessions over a path that loses, repeats and reorders: everything reliable arrives once
// and in order.
#include "tests/support/lossy_link.h"

#include <deque>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

// One end's outgoing stream, sent as fast as the send window allows.
struct Stream {
  void* from = nullptr;
  size_t window = 32;
  size_t mtu = 1400;
  std::vector<Bytes> messages;
  size_t next = 0;
  uint64_t segments = 0;

  void send_what_fits(uint64_t acknowledged) {
    while (next < messages.size()) {
      Bytes& message = messages[next];
      const uint64_t pieces = (message.size() + mtu - 1) / mtu;
      if (segments + pieces - acknowledged > window) return;
      tarn_send_reliable(from, reinterpret_cast<char*>(message.data()),
                         static_cast<int>(message.size()));
      segments += pieces;
      ++next;
    }
  }
};

std::vector<Bytes> random_messages(uint64_t seed, size_t count, size_t largest) {
  std::mt19937_64 random(seed);
  std::vector<Bytes> messages;
  for (size_t i = 0; i < count; ++i) {
    // Mostly short, now and then up to the largest.
    const size_t limit = random() % 8 == 0 ? largest : std::min<size_t>(largest, 600);
    messages.push_back(pattern(1 + random() % limit, static_cast<unsigned>(random())));
  }
  return messages;
}

class LossyLinkTest : public SessionFixture {
 protected:
  // Runs both streams to their ends; false when that takes implausibly long.
  bool run(LossyLink& link, Endpoint& a, Stream& from_a, Endpoint& b, Stream& from_b) {
    link.connect(a.handle(), b.handle());
    from_a.from = a.handle();
    from_b.from = b.handle();
    for (int round = 0; round < 60000; ++round) {
      from_a.send_what_fits(link.acknowledged_of_a());
      from_b.send_what_fits(link.acknowledged_of_b());
      link.pump();
      advance(10);
      if (a.reliable_received.count() >= from_b.messages.size() &&
          b.reliable_received.count() >= from_a.messages.size()) {
        break;
      }
    }
    // Late repeats must not be delivered again.
    for (int round = 0; round < 50; ++round) {
      link.pump();
      advance(10);
    }
    link.disconnect();
    return b.reliable_received.all() == from_a.messages &&
           a.reliable_received.all() == from_b.messages;
  }
};

const LinkFaults kBad{0.2, 0.1, 0.3};

}  // namespace

TEST_F(LossyLinkTest, ThousandsOfMessagesArriveOnceAndInOrderBothWays) {
  Endpoint a;
  Endpoint b;
  LossyLink link(1, kBad);
  Stream from_a;
  Stream from_b;
  from_a.messages = random_messages(2, 2000, 20000);
  from_b.messages = random_messages(3, 2000, 20000);

  EXPECT_TRUE(run(link, a, from_a, b, from_b));

  EXPECT_GT(link.lost(), 500u);
  EXPECT_EQ(a.errors.count(TARN_ERROR_SEND_OVERFLOW), 0);
  EXPECT_EQ(b.errors.count(TARN_ERROR_SEND_OVERFLOW), 0);
}

TEST_F(LossyLinkTest, NumbersWrapUnderLoss) {
  tarn_config_mtu(16);
  tarn_config_send_window_size(1000);
  tarn_config_recv_window_size(1000);
  Endpoint a;
  Endpoint b;
  LossyLink link(4, kBad);
  Stream from_a;
  Stream from_b;
  from_a.mtu = from_b.mtu = 16;
  from_a.window = from_b.window = 1000;
  from_a.messages = random_messages(5, 400, 6000);
  from_b.messages = random_messages(6, 10, 100);
  while (from_a.segments < 70000) {
    from_a.messages.push_back(pattern(16 * 200, static_cast<unsigned>(from_a.segments)));
    from_a.segments += 200;
  }
  from_a.segments = 0;

  EXPECT_TRUE(run(link, a, from_a, b, from_b));
  EXPECT_GT(from_a.segments, 70000u);
}

TEST_F(LossyLinkTest, HalfOfEverythingLostIsOnlySlow) {
  Endpoint a;
  Endpoint b;
  LossyLink link(7, {0.5, 0.2, 0.5});
  Stream from_a;
  Stream from_b;
  from_a.messages = random_messages(8, 150, 20000);
  from_b.messages = random_messages(9, 150, 20000);

  EXPECT_TRUE(run(link, a, from_a, b, from_b));
}

TEST_F(LossyLinkTest, MixedSettingsAndConvWork) {
  for (uint64_t seed = 0; seed < 10; ++seed) {
    std::mt19937_64 random(seed);
    const unsigned mtu = 2 + static_cast<unsigned>(random() % 300);
    tarn_config_mtu(mtu);
    tarn_config_rtx_timeout(10 + static_cast<unsigned>(random() % 100));
    Endpoint a;
    Endpoint b;
    tarn_set_conv(a.handle(), static_cast<unsigned>(random() % 3));
    LossyLink link(seed, kBad);
    Stream from_a;
    Stream from_b;
    from_a.mtu = from_b.mtu = mtu;
    from_a.messages = random_messages(seed + 100, 60, mtu * 20);
    from_b.messages = random_messages(seed + 200, 60, mtu * 20);
    for (Stream* each : {&from_a, &from_b}) {
      for (Bytes& message : each->messages) {
        message.resize(std::min<size_t>(message.size(), mtu * 20));
      }
    }

    EXPECT_TRUE(run(link, a, from_a, b, from_b)) << seed;
    EXPECT_EQ(tarn_get_conv(a.handle()), tarn_get_conv(b.handle())) << seed;
  }
}

TEST_F(LossyLinkTest, APerfectLinkNeedsNoReSend) {
  tarn_config_rtx_timeout(10);
  Endpoint a;
  Endpoint b;
  LossyLink link(0, {});
  Stream from_a;
  Stream from_b;
  from_a.messages = random_messages(10, 200, 20000);
  from_b.messages = random_messages(11, 200, 20000);
  const LogCapture log(3);

  EXPECT_TRUE(run(link, a, from_a, b, from_b));

  EXPECT_EQ(log.count_containing(" resend seq "), 0);
}
