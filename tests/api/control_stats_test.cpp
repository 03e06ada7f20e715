// tarn_get_stats: each counter beside what a recorder of datagrams and callbacks has seen.
#include <errno.h>
#include <string.h>

#include "tarn/control.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

class ControlStats : public SessionFixture {
 protected:
  TarnStats stats() {
    TarnStats stats;
    EXPECT_EQ(tarn_get_stats(a_.handle(), &stats, sizeof stats), 0);
    return stats;
  }
  static uint64_t bytes_in(const DatagramRecorder& recorder) {
    uint64_t bytes = 0;
    for (const Bytes& each : recorder.all()) bytes += each.size();
    return bytes;
  }

  Endpoint a_;
};

}  // namespace

TEST_F(ControlStats, ASizeTakesAsMuchAsItSays) {
  a_.send("x");
  unsigned char place[sizeof(TarnStats) + 16];
  memset(place, 0xAA, sizeof place);
  auto* const as_stats = reinterpret_cast<TarnStats*>(place);
  EXPECT_EQ(tarn_get_stats(a_.handle(), as_stats, 0), -EINVAL);
  EXPECT_EQ(tarn_get_stats(a_.handle(), nullptr, sizeof(TarnStats)), -EINVAL);
  EXPECT_EQ(place[0], 0xAA);
  EXPECT_EQ(tarn_get_stats(a_.handle(), as_stats, 9), 0);
  EXPECT_EQ(place[8], 0);
  EXPECT_EQ(place[9], 0xAA);
  EXPECT_EQ(tarn_get_stats(a_.handle(), as_stats, sizeof place), 0);
  for (size_t i = sizeof(TarnStats); i < sizeof place; ++i) EXPECT_EQ(place[i], 0) << i;
}

TEST_F(ControlStats, CountingBeginsWithTheFirstCall) {
  a_.send("before");
  EXPECT_EQ(stats().messages_sent, 0u);
  EXPECT_EQ(stats().outstanding_segments, 1u);
  EXPECT_EQ(stats().outstanding_bytes, 6u);
  a_.send("after");
  EXPECT_EQ(stats().messages_sent, 1u);
  EXPECT_EQ(stats().message_bytes_sent, 5u);
}

TEST_F(ControlStats, WhatIsSent) {
  stats();
  a_.send(std::string(3000, 'x'));
  a_.send("y");
  a_.send_unreliable("u");
  advance(60);
  const TarnStats seen = stats();
  EXPECT_EQ(seen.messages_sent, 2u);
  EXPECT_EQ(seen.message_bytes_sent, 3001u);
  EXPECT_EQ(seen.unreliable_sent, 1u);
  EXPECT_EQ(seen.segments_sent, 4u);
  EXPECT_EQ(seen.segments_resent, 4u);
  EXPECT_EQ(seen.segments_carried, 0u);
  EXPECT_EQ(seen.datagrams_sent, a_.sent.count());
  EXPECT_EQ(seen.datagram_bytes_sent, bytes_in(a_.sent));
  EXPECT_EQ(seen.outstanding_segments, 4u);
  EXPECT_EQ(seen.outstanding_bytes, 3001u);
  EXPECT_EQ(seen.oldest_outstanding_ms, 60u);
  a_.input(datagram({una(3)}));
  EXPECT_EQ(stats().outstanding_segments, 0u);
  EXPECT_EQ(stats().oldest_outstanding_ms, 0u);
}

TEST_F(ControlStats, InPlaceToo) {
  stats();
  char place[112] = {};
  tarn_send_unreliable_nocp(a_.handle(), place, 100);
  EXPECT_EQ(stats().unreliable_sent, 1u);
  EXPECT_EQ(stats().datagrams_sent, 1u);
  EXPECT_EQ(stats().datagram_bytes_sent, 112u);
}

TEST_F(ControlStats, WhatIsReceived) {
  tarn_set_option(a_.handle(), TARN_OPTION_RECV_WINDOW, 2);
  const std::vector<Bytes> datagrams = {
      datagram({reliable(0, bytes_of("abc")), unreliable(bytes_of("u"))}),
      datagram({reliable(0, bytes_of("abc"))}),   // again
      datagram({reliable(2, bytes_of("x"))}),     // early
      datagram({reliable(2, bytes_of("x"))}),     // again
      datagram({reliable(3, bytes_of("y"))}),     //
      datagram({reliable(4, bytes_of("z"))}),     // refused
      datagram({reliable(1, bytes_of("middle"))}),
      {'n', 'o', 'n', 'e'},
  };
  uint64_t bytes = 0;
  for (const Bytes& each : datagrams) {
    a_.input(each);
    bytes += each.size();
  }
  const TarnStats seen = stats();
  EXPECT_EQ(seen.messages_delivered, 4u);
  EXPECT_EQ(seen.message_bytes_delivered, 11u);
  EXPECT_EQ(seen.unreliable_delivered, 1u);
  EXPECT_EQ(seen.segments_received, 7u);
  EXPECT_EQ(seen.segments_repeated, 2u);
  EXPECT_EQ(seen.segments_rejected, 1u);
  EXPECT_EQ(seen.datagrams_received, datagrams.size());
  EXPECT_EQ(seen.datagram_bytes_received, bytes);
  EXPECT_EQ(seen.buffered_segments, 0u);
}

TEST_F(ControlStats, WhatWaits) {
  tarn_pause_receive(a_.handle(), 1);
  a_.input(datagram({reliable(0, {'x'})}));
  a_.input(datagram({reliable(5, {'x'})}));
  EXPECT_EQ(stats().buffered_segments, 2u);
  tarn_pause_receive(a_.handle(), 0);
  EXPECT_EQ(stats().buffered_segments, 1u);
}

TEST_F(ControlStats, WhatNobodyTookIsNotDelivered) {
  stats();
  tarn_set_recv_reliable_callback(a_.handle(), nullptr, nullptr);
  tarn_set_recv_unreliable_callback(a_.handle(), nullptr, nullptr);
  tarn_set_output_callback(a_.handle(), nullptr, nullptr);
  a_.input(datagram({reliable(0, {'x'}), unreliable({'u'})}));
  a_.send("y");
  EXPECT_EQ(stats().messages_delivered, 0u);
  EXPECT_EQ(stats().unreliable_delivered, 0u);
  EXPECT_EQ(stats().datagrams_sent, 0u);
  EXPECT_EQ(stats().messages_sent, 1u) << "accepted all the same";
}

TEST_F(ControlStats, WhatIsRefused) {
  tarn_set_option(a_.handle(), TARN_OPTION_SEND_WINDOW, 1);
  a_.send("x");
  EXPECT_EQ(tarn_try_send_reliable(a_.handle(), "y", 1), -EAGAIN);
  a_.send("z");
  EXPECT_EQ(stats().messages_refused, 2u);
  EXPECT_EQ(stats().messages_sent, 1u);
}

TEST_F(ControlStats, TheSilenceOfThePeer) {
  stats();
  advance(70);
  EXPECT_EQ(stats().since_received_ms, 70u);
  a_.input(datagram({unreliable({'x'})}));
  advance(30);
  EXPECT_EQ(stats().since_received_ms, 30u);
}

TEST_F(ControlStats, LimitsThatThereAreNot) {
  EXPECT_EQ(stats().rate_bytes_per_second, 0u);
  EXPECT_EQ(stats().rtt_us, 0u);
  EXPECT_EQ(stats().loss_ppm, 0u);
}
