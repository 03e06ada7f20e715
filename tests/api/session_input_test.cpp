// What a session makes of a datagram as a whole: header, order, damaged and left-over bytes.
#include "tests/support/session_fixture.h"

using namespace tarn_test;

using SessionInput = SessionFixture;

TEST_F(SessionInput, LogsTheDatagramAndEachSegment) {
  Endpoint a;
  const LogCapture log;

  a.input(datagram({conv(0), unreliable({1})}));

  EXPECT_EQ(log.count(5, text("tarn %p input len %d", a.handle(), 13)), 1);
  EXPECT_EQ(log.count(4, text("%p recv packet type: %u", a.handle(), 6u)), 1);
  EXPECT_EQ(log.count(4, text("%p recv packet type: %u", a.handle(), 1u)), 1);
}

TEST_F(SessionInput, HandlesSegmentsInTheOrderInWhichTheyStand) {
  Endpoint a;
  a.send("x");

  a.input(datagram({unreliable({1}), unreliable({2}), bye(), una(0), unreliable({3}), conv(6)}));

  EXPECT_EQ(a.unreliable_received.all(), (std::vector<Bytes>{{1}, {2}, {3}}));
  EXPECT_EQ(a.errors.all(), std::vector<int>{TARN_ERROR_BYE});
  EXPECT_EQ(tarn_get_conv(a.handle()), 6u);
}

TEST_F(SessionInput, TakesBothMagicsAlike) {
  Endpoint a;
  Bytes bytes = datagram({unreliable({1}), reliable(0, {2})});
  bytes[0] = '#';

  a.input(bytes);

  EXPECT_EQ(a.unreliable_received.all(), std::vector<Bytes>{{1}});
  EXPECT_EQ(a.reliable_received.all(), std::vector<Bytes>{{2}});
}

TEST_F(SessionInput, RefusesEveryOtherMagic) {
  Endpoint a;
  for (int magic = 0; magic < 256; ++magic) {
    Bytes bytes = datagram({unreliable({1})});
    bytes[0] = static_cast<unsigned char>(magic);
    a.input(bytes);
  }
  EXPECT_EQ(a.unreliable_received.count(), 2u);
}

TEST_F(SessionInput, WrongMagicIsLoggedAndNothingElse) {
  Endpoint a;
  const LogCapture log;
  Bytes bytes = datagram({unreliable({1})});
  bytes[0] = 'Q';

  a.input(bytes);

  EXPECT_EQ(log.count(5, "error magic Q"), 1);
  EXPECT_EQ(log.count_containing("redundant"), 0);
  EXPECT_EQ(log.count_containing("recv packet type"), 0);
}

TEST_F(SessionInput, OtherVersionIsLoggedAndAccepted) {
  Endpoint a;
  const LogCapture log;
  Bytes bytes = datagram({unreliable({1})});
  bytes[1] = 7;

  a.input(bytes);

  EXPECT_EQ(log.count(2, "not match version 7"), 1);
  EXPECT_EQ(a.unreliable_received.count(), 1u);
}

TEST_F(SessionInput, OneByteFailsTheHeaderTest) {
  Endpoint a;
  const LogCapture log;

  a.input({'$'});

  EXPECT_EQ(log.count(5, "error tarn header len 1"), 1);
  EXPECT_EQ(log.count_containing("redundant"), 0);
}

TEST_F(SessionInput, NegativeLengthCountsAs0) {
  Endpoint a;
  const LogCapture log;
  char bytes[] = "$$$$$$$$";

  tarn_input(a.handle(), bytes, -3);

  EXPECT_EQ(log.count(5, "error tarn header len 0"), 1);
}

TEST_F(SessionInput, NullWithLength0IsAnEmptyDatagram) {
  Endpoint a;
  const LogCapture log;

  tarn_input(a.handle(), nullptr, 0);

  EXPECT_EQ(log.count(5, "error tarn header len 0"), 1);
}

TEST_F(SessionInput, NullWithALengthIsRefused) {
  Endpoint a;

  tarn_input(a.handle(), nullptr, 20);

  a.input(datagram({unreliable({1})}));
  EXPECT_EQ(a.unreliable_received.count(), 1u);
}

TEST_F(SessionInput, HeaderAloneIsNotAnError) {
  Endpoint a;
  const LogCapture log(2);

  a.input({'$', 0});

  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SessionInput, TrailingBytesAreCounted) {
  Endpoint a;
  const LogCapture log;

  a.input(concat({datagram({unreliable({1})}), {0x07}}));
  a.input(concat({datagram({unreliable({2})}), {0x07, 0x00}}));
  a.input({'$', 0, 0x07});

  EXPECT_EQ(log.count(2, "redundant len 1"), 2);
  EXPECT_EQ(log.count(2, "redundant len 2"), 1);
  EXPECT_EQ(log.count_containing("error tarn segment len"), 0);
  EXPECT_EQ(a.unreliable_received.count(), 2u);
}

TEST_F(SessionInput, UnknownTypeEndsTheDatagramAfterTheHeadByte) {
  Endpoint a;
  const LogCapture log;

  a.input(datagram({unreliable({1}), segment(kHeartbeat, 3, {}), unreliable({2})}));

  EXPECT_EQ(log.count(2, "error segment type 5"), 1);
  // The length of the refused segment and the whole of the next one.
  EXPECT_EQ(log.count(2, "redundant len 6"), 1);
  EXPECT_EQ(a.unreliable_received.all(), std::vector<Bytes>{{1}});
}

TEST_F(SessionInput, EveryUnknownTypeIsRefused) {
  Endpoint a;
  const LogCapture log;

  for (int type = 0; type < 64; ++type) {
    if (type <= 6 && type != 5) continue;
    a.input(datagram({segment(type, 3, {1, 2, 3})}));
    EXPECT_EQ(log.count(2, text("error segment type %d", type)), 1);
  }
  EXPECT_EQ(log.count_containing("recv packet type"), 0);
}

TEST_F(SessionInput, SegmentLongerThanTheDatagramIsNotDelivered) {
  Endpoint a;
  const LogCapture log;

  a.input(datagram({unreliable({1}), lying_segment(kUnreliable, 3, 5, {2, 2})}));

  EXPECT_EQ(log.count(2, "error segment len 5"), 1);
  EXPECT_EQ(log.count(2, "redundant len 2"), 1);
  EXPECT_EQ(a.unreliable_received.all(), std::vector<Bytes>{{1}});
}

TEST_F(SessionInput, NothingLeftAfterABadLengthIsNotRedundant) {
  Endpoint a;
  const LogCapture log;

  a.input(datagram({lying_segment(kUnreliable, 3, 0xFFFF, {})}));

  EXPECT_EQ(log.count(2, "error segment len 65535"), 1);
  EXPECT_EQ(log.count_containing("redundant"), 0);
}

TEST_F(SessionInput, FlagsOfOtherSegmentsAreIgnored) {
  for (int flag = 0; flag < 4; ++flag) {
    Endpoint a;
    a.input(datagram({segment(kUnreliable, flag, {1}), segment(kConv, flag, {0, 0, 0, 5}),
                      segment(kBye, flag, {})}));
    EXPECT_EQ(a.unreliable_received.count(), 1u);
    EXPECT_EQ(tarn_get_conv(a.handle()), 5u);
    EXPECT_EQ(a.errors.count(TARN_ERROR_BYE), 1);
  }
}

TEST_F(SessionInput, ABadSegmentBodyDoesNotEndTheDatagram) {
  Endpoint a;
  const LogCapture log(1);

  a.input(datagram({segment(kUna, 3, {0, 0, 0}), segment(kAck, 3, {1}), segment(kAck, 3, {}),
                    segment(kReliable, 3, {0, 0}), segment(kUnreliable, 3, {}),
                    segment(kConv, 3, {1, 2, 3}), unreliable({7})}));

  EXPECT_EQ(log.count(1, "error una size 3"), 1);
  EXPECT_EQ(log.count(1, text("%p error ack size %lu", a.handle(), 1ul)), 1);
  EXPECT_EQ(log.count(1, text("%p error ack size %lu", a.handle(), 0ul)), 1);
  EXPECT_EQ(log.count(1, "error reliable size 2"), 1);
  EXPECT_EQ(log.count(1, text("%p error unreliable size %lu", a.handle(), 0ul)), 1);
  EXPECT_EQ(log.count(1, "error conv size 3"), 1);
  EXPECT_EQ(a.unreliable_received.all(), std::vector<Bytes>{{7}});
}

TEST_F(SessionInput, ABodyIsNeverReadFromTheNextSegment) {
  Endpoint a;

  // Read past their ends these would be conv 1 and the reliable message 0.
  a.input(datagram({segment(kConv, 3, {0, 0}), segment(kReliable, 3, {0}), {0x07, 0x00, 0x01, 9}}));

  EXPECT_EQ(tarn_get_conv(a.handle()), 0u);
  EXPECT_EQ(a.reliable_received.count(), 0u);
  EXPECT_EQ(a.unreliable_received.all(), std::vector<Bytes>{{9}});
}

TEST_F(SessionInput, ABodyOfByeIsIgnored) {
  Endpoint a;

  a.input(datagram({segment(kBye, 3, {1, 2, 3}), unreliable({4})}));

  EXPECT_EQ(a.errors.count(TARN_ERROR_BYE), 1);
  EXPECT_EQ(a.unreliable_received.count(), 1u);
}

TEST_F(SessionInput, EachByeRaisesItsError) {
  Endpoint a;
  const LogCapture log;

  a.input(datagram({bye(), bye()}));
  a.input(datagram({bye()}));

  EXPECT_EQ(a.errors.count(TARN_ERROR_BYE), 3);
  EXPECT_EQ(log.count(3, text("tarn %p got bye", a.handle())), 3);
}

TEST_F(SessionInput, ASessionGoesOnAfterBye) {
  Endpoint a;
  a.input(datagram({bye()}));

  a.input(datagram({reliable(0, {1})}));
  a.send("x");

  EXPECT_EQ(a.reliable_received.count(), 1u);
  EXPECT_EQ(a.sent.count(), 1u);
}

TEST_F(SessionInput, EveryTruncationOfARealDatagramIsSafe) {
  const Bytes whole = datagram({conv(5), una(1), ack({3, 4}), unreliable(pattern(9)), bye()});
  for (size_t size = 0; size < whole.size(); ++size) {
    Endpoint a;
    a.input(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
    EXPECT_EQ(a.errors.count(TARN_ERROR_BYE), 0) << size;
    EXPECT_EQ(a.unreliable_received.count(), size >= whole.size() - 3 ? 1u : 0u) << size;
  }
}
