// tarn_check_packet and tarn_read_packet_conv: datagrams without a session.
#include "tests/support/packet_inspection.h"

using namespace tarn_test;

TEST(CheckPacket, FirstReliableMessageIs0) {
  EXPECT_EQ(check({'$', 0, 0x03, 0x00, 0x05, 0x00, 0x00, 'a', 'b', 'c'}), 0);
}

TEST(CheckPacket, LaterReliableMessageIs1) {
  EXPECT_EQ(check({'$', 0, 0x03, 0x00, 0x05, 0x00, 0x01, 'a', 'b', 'c'}), 1);
}

TEST(CheckPacket, FirstPieceOfTheFirstMessageIs0) {
  EXPECT_EQ(check(datagram({reliable(0, {1}, kFirst)})), 0);
}

TEST(CheckPacket, ConvFirstIs1) { EXPECT_EQ(check(datagram({conv(0), reliable(0, {1})})), 1); }

TEST(CheckPacket, AnyOtherKnownSegmentIs1) {
  for (const int type : {1, 2, 3, 4, 6}) {
    EXPECT_EQ(check(datagram({segment(type, 3, {})})), 1) << type;
  }
}

TEST(CheckPacket, UnknownSegmentIsMinus1) {
  for (int type = 0; type < 64; ++type) {
    const bool known = type <= 6 && type != 5;
    EXPECT_EQ(check(datagram({segment(type, 3, {0, 9})})) == -1, !known) << type;
  }
}

TEST(CheckPacket, LooksAtTheFirstSegmentOnly) {
  EXPECT_EQ(check(concat({datagram({reliable(0, {1})}), {0xFF, 0xFF, 0xFF, 0xFF}})), 0);
}

TEST(CheckPacket, AcceptsTheOtherMagic) {
  Bytes bytes = datagram({reliable(0, {1})});
  bytes[0] = '#';
  EXPECT_EQ(check(bytes), 0);
}

TEST(CheckPacket, RefusesEveryOtherMagic) {
  for (int magic = 0; magic < 256; ++magic) {
    Bytes bytes = datagram({reliable(0, {1})});
    bytes[0] = static_cast<unsigned char>(magic);
    EXPECT_EQ(check(bytes) != -1, magic == '#' || magic == '$') << magic;
  }
}

TEST(CheckPacket, OtherVersionIsLoggedAndAccepted) {
  const LogCapture log;
  Bytes bytes = datagram({reliable(0, {1})});
  bytes[1] = 7;

  EXPECT_EQ(check(bytes), 0);
  EXPECT_EQ(log.count(2, "not match version 7"), 1);
}

TEST(CheckPacket, NothingIsMinus1WithoutALog) {
  const LogCapture log;
  char byte = '$';

  EXPECT_EQ(tarn_check_packet(&byte, 0), -1);
  EXPECT_EQ(tarn_check_packet(&byte, -1), -1);
  EXPECT_EQ(tarn_check_packet(nullptr, 0), -1);
  EXPECT_TRUE(log.lines().empty());
}

TEST(CheckPacket, NullWithALengthIsRefused) { EXPECT_EQ(tarn_check_packet(nullptr, 20), -1); }

TEST(CheckPacket, OneByteLogsTheHeaderLength) {
  const LogCapture log;

  EXPECT_EQ(check({'$'}), -1);
  EXPECT_EQ(log.count(5, "error tarn header len 1"), 1);
}

TEST(CheckPacket, WrongMagicIsLogged) {
  const LogCapture log;

  EXPECT_EQ(check({'A', 0, 0x03, 0x00, 0x03, 0x00, 0x00, 1}), -1);
  EXPECT_EQ(log.count(5, "error magic A"), 1);
}

TEST(CheckPacket, HeaderAloneLogsTheSegmentLength) {
  const LogCapture log;

  EXPECT_EQ(check({'$', 0}), -1);
  EXPECT_EQ(log.count(2, "error tarn segment len 0"), 1);
}

TEST(CheckPacket, OneByteAfterTheHeaderLogsTheSegmentLength) {
  const LogCapture log;

  EXPECT_EQ(check({'$', 0, 0x03}), -1);
  EXPECT_EQ(log.count(2, "error tarn segment len 1"), 1);
}

TEST(CheckPacket, TwoBytesAfterTheHeaderLogTheTypeFirst) {
  const LogCapture log;

  EXPECT_EQ(check({'$', 0, 63 << 2, 0}), -1);
  EXPECT_EQ(log.count(2, "error segment type 63"), 1);
  EXPECT_EQ(log.count_containing("error tarn segment len"), 0);
}

TEST(CheckPacket, TwoBytesAfterTheHeaderOfAKnownTypeLogTheLength) {
  const LogCapture log;

  EXPECT_EQ(check({'$', 0, 0x03, 0}), -1);
  EXPECT_EQ(log.count(2, "error tarn segment len 2"), 1);
}

TEST(CheckPacket, SegmentLongerThanTheDatagramIsLogged) {
  const LogCapture log;

  EXPECT_EQ(check({'$', 0, 0x03, 0x01, 0x00, 0x00, 0x00}), -1);
  EXPECT_EQ(log.count(2, "error segment len 256"), 1);
}

TEST(CheckPacket, ReliableSegmentWithoutANumberIsMinus1) {
  EXPECT_EQ(check(datagram({reliable(0, {})})), 0);
  EXPECT_EQ(check(datagram({segment(kReliable, 3, {0})})), -1);
  EXPECT_EQ(check(datagram({segment(kReliable, 3, {})})), -1);
}

TEST(CheckPacket, ReadsNoNumberFromTheNextSegment) {
  EXPECT_EQ(check(datagram({segment(kReliable, 3, {0}), una(0)})), -1);
}

TEST(ReadPacketConv, FindsTheConvBehindOtherSegments) {
  EXPECT_EQ(read_conv(datagram({una(3), unreliable({1}), conv(0x01020304), conv(5)})), 0x01020304u);
}

TEST(ReadPacketConv, Is0WithoutAConvSegment) {
  EXPECT_EQ(read_conv(datagram({reliable(0, {1})})), 0u);
  EXPECT_EQ(read_conv(datagram({})), 0u);
}

TEST(ReadPacketConv, Is0WhenABadSegmentComesFirst) {
  EXPECT_EQ(read_conv(datagram({segment(kHeartbeat, 3, {}), conv(5)})), 0u);
}

TEST(ReadPacketConv, TakesAConvSegmentUnder4BytesForABadOne) {
  for (size_t size = 0; size < 4; ++size) {
    EXPECT_EQ(read_conv(datagram({segment(kConv, 3, Bytes(size, 1)), conv(5)})), 0u) << size;
  }
}

TEST(ReadPacketConv, ReadsTheFirst4BytesOfALongerConvSegment) {
  EXPECT_EQ(read_conv(datagram({segment(kConv, 3, {0, 0, 0, 8, 9, 9})})), 8u);
}

TEST(ReadPacketConv, LooksAtALastSegmentThatIsOnlyAHead) {
  const LogCapture log(2);
  EXPECT_EQ(read_conv(datagram({segment(kHeartbeat, 3, {})})), 0u);
  EXPECT_EQ(log.count(2, "error segment type 5"), 1);
}

TEST(ReadPacketConv, TakesALengthOf0OrLessForAnEmptyDatagram) {
  char byte = '$';
  const LogCapture log(5);
  tarn_read_packet_conv(&byte, 0);
  tarn_read_packet_conv(&byte, -1);
  EXPECT_EQ(log.count(5, "error tarn header len 0"), 2);
}

TEST(ReadPacketConv, RefusesWhatHasNoHeader) {
  char byte = '$';
  EXPECT_EQ(read_conv({'$'}), kNotOurs);
  EXPECT_EQ(read_conv({'A', 0, 0x1B, 0x00, 0x04, 0, 0, 0, 5}), kNotOurs);
  EXPECT_EQ(tarn_read_packet_conv(&byte, 0), kNotOurs);
  EXPECT_EQ(tarn_read_packet_conv(&byte, -1), kNotOurs);
  EXPECT_EQ(tarn_read_packet_conv(nullptr, 0), kNotOurs);
  EXPECT_EQ(tarn_read_packet_conv(nullptr, 20), kNotOurs);
}

TEST(ReadPacketConv, AcceptsTheOtherMagicAndVersion) {
  const LogCapture log;
  Bytes bytes = datagram({conv(5)});
  bytes[0] = '#';
  bytes[1] = 200;

  EXPECT_EQ(read_conv(bytes), 5u);
  EXPECT_EQ(log.count(2, "not match version 200"), 1);
}
