// control.h: pausing, the limit of a message, the strict conversation id, and what a session with
// options does not believe of its peer.
#include "tests/api/contract_kit.h"

using namespace tarn_test;

namespace {

class ContractReceive : public FeedbackFixture {};

Bytes message(unsigned seed) { return pattern(20, seed); }
std::vector<Bytes> messages(unsigned from, unsigned to) {
  std::vector<Bytes> all;
  for (unsigned seed = from; seed < to; ++seed) all.push_back(message(seed));
  return all;
}

}  // namespace

TEST_F(ContractReceive, WhatIsKeptIsAcknowledgedAgainThoughTheWindowIsFull) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_RECV_WINDOW, 2);
  tarn_pause_receive(a.handle(), 1);
  a.input(datagram({reliable(0, message(0))}));
  a.input(datagram({reliable(1, message(1))}));
  EXPECT_EQ(feedback(a).acks, (std::vector<uint16_t>{0, 1}));
  // The acknowledgement was lost.
  a.input(datagram({reliable(0, message(0))}));
  EXPECT_EQ(feedback(a).acks, (std::vector<uint16_t>{0}));
  EXPECT_TRUE(a.errors.all().empty());
  EXPECT_EQ(stats_of(a.handle()).segments_repeated, 1u);
}

TEST_F(ContractReceive, GapsAndFragmentsAreDeliveredInOrderAfterAPause) {
  Endpoint a;
  a.input(datagram({reliable(0, bytes_of("ab"), kFirst)}));
  tarn_pause_receive(a.handle(), 1);
  a.input(datagram({reliable(3, message(3))}));
  a.input(datagram({reliable(1, bytes_of("cd"), kMiddle)}));
  a.input(datagram({reliable(5, message(5))}));
  tarn_pause_receive(a.handle(), 0);
  EXPECT_EQ(a.reliable_received.count(), 0u);
  tarn_pause_receive(a.handle(), 1);
  a.input(datagram({reliable(2, bytes_of("e"), kLast)}));
  EXPECT_EQ(a.reliable_received.count(), 0u);
  tarn_pause_receive(a.handle(), 0);
  EXPECT_EQ(a.reliable_received.all(), (std::vector<Bytes>{bytes_of("abcde"), message(3)}));
  a.input(datagram({reliable(4, message(4))}));
  EXPECT_EQ(a.reliable_received.count(), 4u);
}

TEST_F(ContractReceive, AReceiveWindowThatShrinksKeepsWhatItHas) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_RECV_WINDOW, 10);
  for (uint16_t seq = 1; seq <= 8; ++seq) a.input(datagram({reliable(seq, message(seq))}));
  set_option(a.handle(), TARN_OPTION_RECV_WINDOW, 3);
  a.input(datagram({reliable(9, message(9))}));
  EXPECT_EQ(a.errors.all(), std::vector<int>{TARN_ERROR_RECV_REJECTED});
  EXPECT_EQ(stats_of(a.handle()).buffered_segments, 8u);
  a.input(datagram({reliable(0, message(0))}));
  EXPECT_EQ(a.reliable_received.all(), messages(0, 9));
}

TEST_F(ContractReceive, AStrictSessionFindsItsIdAnywhereInADatagram) {
  Endpoint a;
  tarn_set_conv(a.handle(), 5);
  set_option(a.handle(), TARN_OPTION_STRICT_CONV, 1);
  a.input(datagram({reliable(0, message(0)), conv(5)}));
  EXPECT_EQ(a.reliable_received.count(), 1u);
}

TEST_F(ContractReceive, ANumberTooFarAheadIsRefused) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_KEEP_ALIVE_MS, 0);
  a.input(datagram({reliable(0, message(0))}));
  far_number(a, 8192, true);
  far_number(a, 8193, false);
  far_number(a, 20000, false);
  far_number(a, 32767, false);
  EXPECT_EQ(stats_of(a.handle()).segments_rejected, 3u);
  EXPECT_EQ(stats_of(a.handle()).buffered_segments, 1u);
}

TEST_F(ContractReceive, WithoutAnOptionFarNumbersAreTakenAsEver) {
  Endpoint a;
  stats_of(a.handle());
  tarn_send_room(a.handle());
  tarn_pause_receive(a.handle(), 0);
  tarn_set_writable_callback(a.handle(), nullptr, nullptr);
  a.input(datagram({reliable(0, message(0))}));
  far_number(a, 20000, true);
  far_number(a, 32767, true);
}

TEST_F(ContractReceive, AnOptionSetInTheMiddleFindsWhatIsOutstanding) {
  Endpoint a;
  for (int i = 0; i < 10; ++i) a.send("x");
  a.input(datagram({una(2), ack({5, 7})}));
  set_option(a.handle(), TARN_OPTION_PEER_WINDOW, 10);
  EXPECT_EQ(stats_of(a.handle()).outstanding_segments, 5u);
  // 3 is the oldest: up to 13 may go.
  EXPECT_EQ(tarn_send_room(a.handle()), 4u * 1400);
  a.input(datagram({una(2), una(11), ack({5, 7, 10})}));
  EXPECT_EQ(stats_of(a.handle()).outstanding_segments, 5u);
  a.input(datagram({ack({3, 4})}));
  EXPECT_EQ(tarn_send_room(a.handle()), 7u * 1400) << "6 is the oldest";
  a.input(datagram({una(9)}));
  EXPECT_EQ(stats_of(a.handle()).outstanding_segments, 0u);
}

TEST_F(ContractReceive, RubbishIsNotOfTheConversationWithAllBitsSet) {
  Endpoint a;
  tarn_set_conv(a.handle(), 0xFFFFFFFF);
  set_option(a.handle(), TARN_OPTION_STRICT_CONV, 1);
  stats_of(a.handle());
  advance(100);
  a.input(bytes_of("rubbish"));
  EXPECT_EQ(stats_of(a.handle()).since_received_ms, 100u);
}
