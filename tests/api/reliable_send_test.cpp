// Cutting, numbering and the first emission of reliable messages.
#include "tests/support/session_fixture.h"

using namespace tarn_test;

using ReliableSend = SessionFixture;

namespace {

std::vector<size_t> payload_sizes(const Endpoint& a) {
  std::vector<size_t> sizes;
  for (const WireSegment& one : segments_of_type(a.sent.all(), kReliable)) {
    sizes.push_back(one.payload().size());
  }
  return sizes;
}

std::vector<int> flags(const Endpoint& a) {
  std::vector<int> all;
  for (const WireSegment& one : segments_of_type(a.sent.all(), kReliable)) all.push_back(one.flag);
  return all;
}

}  // namespace

TEST_F(ReliableSend, GoesOutAtOnce) {
  Endpoint a;
  a.send("x");
  EXPECT_EQ(a.sent.count(), 1u);
}

TEST_F(ReliableSend, AMessageOfExactlyTheMtuIsOneSegment) {
  Endpoint a;
  a.send(pattern(1400));
  EXPECT_EQ(flags(a), std::vector<int>{kWhole});
  EXPECT_EQ(payload_sizes(a), std::vector<size_t>{1400});
}

TEST_F(ReliableSend, OneByteMoreIsTwoSegments) {
  Endpoint a;
  a.send(pattern(1401));
  EXPECT_EQ(flags(a), (std::vector<int>{kFirst, kLast}));
  EXPECT_EQ(payload_sizes(a), (std::vector<size_t>{1400, 1}));
}

TEST_F(ReliableSend, AMultipleOfTheMtuHasAFullLastPiece) {
  Endpoint a;
  a.send(pattern(4200));
  EXPECT_EQ(flags(a), (std::vector<int>{kFirst, kMiddle, kLast}));
  EXPECT_EQ(payload_sizes(a), (std::vector<size_t>{1400, 1400, 1400}));
}

TEST_F(ReliableSend, AMessageOf3000BytesIsThreeSegments) {
  Endpoint a;
  a.send(pattern(3000));
  EXPECT_EQ(flags(a), (std::vector<int>{kFirst, kMiddle, kLast}));
  EXPECT_EQ(payload_sizes(a), (std::vector<size_t>{1400, 1400, 200}));
  EXPECT_EQ(a.sent_numbers(), (std::vector<int>{0, 1, 2}));
}

TEST_F(ReliableSend, NumbersRunOnFromMessageToMessage) {
  Endpoint a;
  a.send("1");
  a.send(pattern(3000));
  a.send("2");
  EXPECT_EQ(a.sent_numbers(), (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST_F(ReliableSend, EverySessionCountsForItself) {
  Endpoint a;
  Endpoint b;
  a.send("1");
  a.send("2");
  b.send("3");
  EXPECT_EQ(b.sent_numbers(), std::vector<int>{0});
}

TEST_F(ReliableSend, NumbersWrapFrom65535To0) {
  tarn_config_send_window_size(70000);
  Endpoint a;
  for (int i = 0; i < 65536; ++i) {
    a.send("x");
    if (i % 1000 == 999) {
      a.input(datagram({una(static_cast<uint16_t>(i))}));
      a.sent.clear();
    }
  }

  a.sent.clear();
  a.send("x");

  EXPECT_EQ(a.sent_numbers(), std::vector<int>{0});
}

TEST_F(ReliableSend, AnEmptyMessageIsSentAsASegmentOfItsNumberAlone) {
  Endpoint a;
  a.send(Bytes());
  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({reliable(0, {})})});
}

TEST_F(ReliableSend, AnEmptyMessageIsReSentUntilThePeerSaysOtherwise) {
  Endpoint a;
  a.send(Bytes());
  advance(60);
  advance(120);
  EXPECT_EQ(a.sent.count(), 3u);
}

TEST_F(ReliableSend, MtuIsReadWhenTheSessionIsCreated) {
  Endpoint before;
  tarn_config_mtu(10);
  Endpoint after;

  before.send(pattern(20));
  after.send(pattern(20));

  EXPECT_EQ(payload_sizes(before), std::vector<size_t>{20});
  EXPECT_EQ(payload_sizes(after), (std::vector<size_t>{10, 10}));
}

TEST_F(ReliableSend, Mtu1SendsByteByByte) {
  tarn_config_mtu(1);
  Endpoint a;
  a.send("abc");
  EXPECT_EQ(a.sent.all(), (std::vector<Bytes>{datagram({reliable(0, {'a'}, kFirst)}),
                                              datagram({reliable(1, {'b'}, kMiddle)}),
                                              datagram({reliable(2, {'c'}, kLast)})}));
}

TEST_F(ReliableSend, Mtu0RefusesAMessageWithOneLine) {
  tarn_config_mtu(0);
  Endpoint a;
  const LogCapture log(1);

  a.send("abc");

  EXPECT_EQ(a.sent.count(), 0u);
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(ReliableSend, Mtu0StillSendsTheEmptyMessage) {
  tarn_config_mtu(0);
  Endpoint a;
  const LogCapture log(1);

  a.send(Bytes());

  EXPECT_EQ(a.sent.count(), 1u);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ReliableSend, Mtu0LeavesUnreliableMessagesAlone) {
  tarn_config_mtu(0);
  Endpoint a;
  a.send_unreliable("abc");
  EXPECT_EQ(a.sent.count(), 1u);
}

TEST_F(ReliableSend, NoPieceExceeds65533Bytes) {
  for (const unsigned mtu : {65533u, 65534u, 70000u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    tarn_config_mtu(mtu);
    Endpoint a;
    const Bytes message = pattern(100000, mtu);

    a.send(message);

    EXPECT_EQ(payload_sizes(a), (std::vector<size_t>{65533, 100000 - 65533})) << mtu;
    EXPECT_EQ(flags(a), (std::vector<int>{kFirst, kLast})) << mtu;
  }
}

TEST_F(ReliableSend, AMessageOf65533BytesIsOneSegmentOfAWideMtu) {
  tarn_config_mtu(70000);
  Endpoint a;
  const Bytes message = pattern(65533);

  a.send(message);

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({reliable(0, message)})});
}

TEST_F(ReliableSend, LogsEachPieceWithItsSize) {
  Endpoint a;
  const LogCapture log;

  a.send(pattern(1500));

  EXPECT_EQ(log.count(5, text("tarn %p send reliable len %d", a.handle(), 1500)), 1);
  EXPECT_EQ(log.count(5, text("tarn %p send reliable seq %u len %lu", a.handle(), 0u, 1400ul)), 1);
  EXPECT_EQ(log.count(5, text("tarn %p send reliable seq %u len %lu", a.handle(), 1u, 100ul)), 1);
}
