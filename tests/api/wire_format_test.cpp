// The bytes of each kind of datagram, written out.
#include "tests/support/session_fixture.h"

using namespace tarn_test;

using WireFormat = SessionFixture;

TEST_F(WireFormat, ReliableMessage) {
  Endpoint a;

  a.send("abc");

  const Bytes expected{
      '$',  0,          // magic, version
      0x03,             // reliable, whole message
      0x00, 0x05,       // number and payload
      0x00, 0x00,       // number 0
      'a',  'b',  'c',  // payload
  };
  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{expected});
}

TEST_F(WireFormat, UnreliableMessage) {
  Endpoint a;

  a.send_unreliable("0123456789");

  const Bytes expected{
      '$',  0,                                             // magic, version
      0x07,                                                // unreliable, flag 3
      0x00, 0x0A,                                          // length
      '0',  '1',  '2', '3', '4', '5', '6', '7', '8', '9',  // payload
  };
  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{expected});
}

TEST_F(WireFormat, ConvComesFirstAndHighByteFirst) {
  Endpoint a;
  tarn_set_conv(a.handle(), 0x01020304);

  a.send("x");

  const Bytes expected{
      '$',  0,                 // magic, version
      0x1B, 0x00, 0x04,        // conv, flag 3, length 4
      0x01, 0x02, 0x03, 0x04,  // conversation id
      0x03, 0x00, 0x03,        // reliable, whole, length
      0x00, 0x00,              // number 0
      'x',                     // payload
  };
  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{expected});
}

TEST_F(WireFormat, NoConvSegmentWhileConvIs0) {
  Endpoint a;

  a.send_unreliable("x");

  EXPECT_EQ(segments_of(a.sent.at(0)).front().type, kUnreliable);
}

TEST_F(WireFormat, CopyFreeMessageHasA12BytePrefix) {
  Endpoint a;
  tarn_set_conv(a.handle(), 0xFFFEFDFC);
  char buffer[] = "............0123456789";

  tarn_send_unreliable_nocp(a.handle(), buffer, 10);

  const Bytes expected{
      '$',  0,                                               // magic, version
      0x1B, 0x00, 0x04,                                      // conv, flag 3, length 4
      0xFF, 0xFE, 0xFD, 0xFC,                                // conversation id
      0x07, 0x00, 0x0A,                                      // unreliable, flag 3, length 10
      '0',  '1',  '2',  '3',  '4', '5', '6', '7', '8', '9',  // payload
  };
  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{expected});
}

TEST_F(WireFormat, PeriodicFeedbackIsConvThenAcksThenUna) {
  Endpoint a;
  tarn_set_conv(a.handle(), 9);
  a.input(datagram({reliable(0, {1}), reliable(0x0203, {1}), reliable(5, {1})}));

  advance(50);

  const Bytes expected{
      '$',  0,                                   // magic, version
      0x1B, 0x00, 0x04, 0x00, 0x00, 0x00, 0x09,  // conv 9
      0x0B, 0x00, 0x04,                          // ack list, flag 3, two numbers
      0x02, 0x03, 0x00, 0x05,                    // in the order of their arrival
      0x0F, 0x00, 0x02, 0x00, 0x00,              // una 0
  };
  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{expected});
}

TEST_F(WireFormat, FeedbackBesideDataIsConvThenUnaThenAcksThenData) {
  Endpoint a;
  tarn_set_conv(a.handle(), 9);
  a.input(datagram({reliable(0, {1}), reliable(7, {1})}));

  a.send("x");

  const Bytes expected{
      '$',  0,                                   // magic, version
      0x1B, 0x00, 0x04, 0x00, 0x00, 0x00, 0x09,  // conv 9
      0x0F, 0x00, 0x02, 0x00, 0x00,              // una 0
      0x0B, 0x00, 0x02, 0x00, 0x07,              // ack list: 7
      0x03, 0x00, 0x03, 0x00, 0x00, 'x',         // reliable, number 0
  };
  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{expected});
}

TEST_F(WireFormat, PiecesCarryTheirPlaceInTheHeadByte) {
  tarn_config_mtu(2);
  Endpoint a;

  a.send("abcde");

  const std::vector<Bytes> expected{
      {'$', 0, 0x02, 0x00, 0x04, 0x00, 0x00, 'a', 'b'},  // first piece
      {'$', 0, 0x00, 0x00, 0x04, 0x00, 0x01, 'c', 'd'},  // middle piece
      {'$', 0, 0x01, 0x00, 0x03, 0x00, 0x02, 'e'},       // last piece
  };
  EXPECT_EQ(a.sent.all(), expected);
}

TEST_F(WireFormat, FullReliableSegmentMakesADatagramOfMtuPlus14) {
  Endpoint a;
  tarn_set_conv(a.handle(), 1);

  a.send(pattern(1400));

  EXPECT_EQ(a.sent.at(0).size(), 1414u);
}

TEST_F(WireFormat, UnreliableLengthIsCutTo16Bits) {
  Endpoint a;

  a.send_unreliable(pattern(65536 + 5));

  const Bytes sent = a.sent.at(0);
  ASSERT_EQ(sent.size(), 2u + 3 + 65536 + 5);
  EXPECT_EQ(Bytes(sent.begin(), sent.begin() + 5), (Bytes{'$', 0, 0x07, 0x00, 0x05}));
}
