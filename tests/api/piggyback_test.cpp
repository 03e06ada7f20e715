// Acknowledgements that ride along with data, and the room that they get.
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

class Piggyback : public SessionFixture {
 protected:
  // A session of this mtu that owes its peer una 0 and an ack of 7.
  struct Owing : Endpoint {
    Owing() {
      input(datagram({reliable(0, {1})}));
      input(datagram({reliable(7, {1})}));
    }
  };
};

constexpr size_t kReliableHead = 5;
constexpr size_t kUnreliableHead = 3;

}  // namespace

TEST_F(Piggyback, RidesWithAReliableMessage) {
  Owing a;
  a.send("x");
  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({una(0), ack({7}), reliable(0, {'x'})})});
}

TEST_F(Piggyback, RidesWithAnUnreliableMessage) {
  Owing a;
  a.send_unreliable("x");
  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({una(0), ack({7}), unreliable({'x'})})});
}

TEST_F(Piggyback, RidesWithAReSentSegment) {
  // A cycle long after the re-send, which therefore finds the feedback first.
  tarn_config_rtx_timeout(1000);
  Endpoint a;
  a.send("x");
  a.input(datagram({reliable(0, {1}), reliable(7, {1})}));

  advance(60);
  advance(120);

  EXPECT_EQ(a.sent.all(), (std::vector<Bytes>{datagram({reliable(0, {'x'})}),
                                              datagram({una(0), ack({7}), reliable(0, {'x'})}),
                                              datagram({reliable(0, {'x'})})}));
}

TEST_F(Piggyback, LeavesNothingForTheCycle) {
  Owing a;
  a.send_unreliable("x");
  a.sent.clear();

  advance(50);

  EXPECT_EQ(a.sent.count(), 0u);
}

TEST_F(Piggyback, RidesWithTheFirstPieceThatHasRoom) {
  Owing a;

  a.send(pattern(1500));

  const auto sent = a.sent.all();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(segments_of(sent[0]).size(), 1u);
  EXPECT_EQ(segments_of(sent[1]).size(), 3u);
}

TEST_F(Piggyback, ALimitOf6BytesBelowTheMtu) {
  // The data counts with its head. 6 bytes of room are needed for anything at all.
  tarn_config_mtu(100);
  for (size_t size = 80; size <= 100; ++size) {
    Owing a;
    a.send_unreliable(Bytes(size - kUnreliableHead, 'x'));
    const bool expected = 100 - size >= 6;
    EXPECT_EQ(segments_of(a.sent.at(0)).size() > 1, expected) << size;
  }
}

TEST_F(Piggyback, TheHeadOfAReliableSegmentCountsToo) {
  tarn_config_mtu(100);
  for (size_t size = 80; size <= 100; ++size) {
    Owing a;
    a.send(Bytes(size - kReliableHead, 'x'));
    const bool expected = 100 - size >= 6;
    EXPECT_EQ(segments_of(a.sent.at(0)).size() > 1, expected) << size;
  }
}

TEST_F(Piggyback, ABudgetOf6Or7BesideUnaTakesTheWholeList) {
  tarn_config_mtu(100);
  for (const size_t room : {6u, 7u}) {
    Endpoint a;
    a.input(datagram({reliable(0, {1})}));
    std::vector<uint16_t> early;
    for (uint16_t n = 2; n < 30; ++n) {
      early.push_back(n);
      a.input(datagram({reliable(n, {1})}));
    }
    const Bytes message(100 - room - kUnreliableHead, 'x');

    a.send_unreliable(message);

    EXPECT_EQ(a.sent.all(),
              std::vector<Bytes>{datagram({una(0), ack(early), unreliable(message)})});
  }
}

TEST_F(Piggyback, ABudgetOf8Or9BesideUnaMakesAnEmptyAckList) {
  tarn_config_mtu(100);
  for (const size_t room : {8u, 9u}) {
    Owing a;
    const Bytes message(100 - room - kUnreliableHead, 'x');

    a.send_unreliable(message);

    EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({una(0), ack({}), unreliable(message)})});
  }
}

TEST_F(Piggyback, AListThatDoesNotFitIsContinuedInTheNextDatagram) {
  tarn_config_mtu(100);
  Endpoint a;
  for (uint16_t n = 1; n <= 10; ++n) a.input(datagram({reliable(n, {1})}));
  const Bytes message(100 - 13 - kUnreliableHead, 'x');

  a.send_unreliable(message);
  a.send_unreliable(message);

  EXPECT_EQ(a.sent.all(),
            (std::vector<Bytes>{datagram({ack({1, 2, 3, 4, 5}), unreliable(message)}),
                                datagram({ack({6, 7, 8, 9, 10}), unreliable(message)})}));
}

TEST_F(Piggyback, NamesAtMost32767SequenceNumbers) {
  tarn_config_mtu(100);
  Endpoint a;
  a.input(datagram({reliable(0, {1})}));
  for (int i = 0; i < 40000; ++i) a.input(datagram({reliable(7, {1})}));

  a.send_unreliable(Bytes(100 - 6 - kUnreliableHead, 'x'));

  const auto segments = segments_of(a.sent.at(0));
  ASSERT_EQ(segments.size(), 3u);
  EXPECT_EQ(segments[1].numbers(), std::vector<uint16_t>(32767, 7));
}

TEST_F(Piggyback, ATinyMtuMeansNoFeedbackWithData) {
  for (unsigned mtu = 0; mtu <= 6; ++mtu) {
    tarn_config_mtu(mtu);
    Owing a;
    a.send_unreliable("x");
    EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({unreliable({'x'})})}) << mtu;
  }
}

TEST_F(Piggyback, AMessageLongerThanTheMtuHasNoRoom) {
  tarn_config_mtu(100);
  Owing a;
  a.send_unreliable(Bytes(5000, 'x'));
  EXPECT_EQ(segments_of(a.sent.at(0)).size(), 1u);
}

TEST_F(Piggyback, ConvTakesNoneOfTheRoom) {
  tarn_config_mtu(100);
  Owing a;
  tarn_set_conv(a.handle(), 3);
  const Bytes message(100 - 10 - kUnreliableHead, 'x');

  a.send_unreliable(message);

  EXPECT_EQ(a.sent.all(),
            std::vector<Bytes>{datagram({conv(3), una(0), ack({7}), unreliable(message)})});
}

TEST_F(Piggyback, IsGatheredEvenWhenThereIsNowhereToSendIt) {
  Owing a;
  tarn_set_output_callback(a.handle(), nullptr, nullptr);
  a.send_unreliable("x");
  tarn_set_output_callback(a.handle(), DatagramRecorder::on_data, &a.sent);

  advance(50);

  EXPECT_EQ(a.sent.count(), 0u);
}
