// Datagrams explained, word for word.
#include "tests/e2e/tool_fixture.h"
#include "tools/exit_status.h"

using namespace tarn_test;
using namespace tarn_tool;

using Inspect = ToolFixture;

TEST_F(Inspect, ExplainsEverySegment) {
  const auto result = run({"inspect",
                           "24 00"
                           " 1b 0004 12345678"
                           " 0f 0002 0007"
                           " 0b 0004 0009 000b"
                           " 02 0007 000c 68656c6c6f"
                           " 07 0001 ff"
                           " 13 0000"});

  EXPECT_EQ(result.status, kSuccess);
  EXPECT_EQ(result.output,
            "datagram of 38 bytes\n"
            "    0  header      magic \"$\" version 0\n"
            "    2  conv        type 6 flag 3 length 4: conversation id 305419896 (0x12345678)\n"
            "    9  una         type 3 flag 3 length 2: received in order up to seq 7\n"
            "   14  ack list    type 2 flag 3 length 4: received out of order: 9 11\n"
            "   21  reliable    type 0 flag 2 length 7: seq 12, the first piece of a message, "
            "5 bytes: 68 65 6c 6c 6f |hello|\n"
            "   31  unreliable  type 1 flag 3 length 1: 1 byte: ff |.|\n"
            "   35  bye         type 4 flag 3 length 0: the peer is leaving\n"
            "       check 1: part of a conversation; conversation id: 0x12345678\n"
            "library: tarn_check_packet 1, tarn_read_packet_conv 0x12345678\n");
}

TEST_F(Inspect, KnowsTheStartOfAConversation) {
  const auto result = run({"inspect", "24000300050000616263"});

  EXPECT_EQ(result.status, kSuccess);
  EXPECT_EQ(result.output,
            "datagram of 10 bytes\n"
            "    0  header      magic \"$\" version 0\n"
            "    2  reliable    type 0 flag 3 length 5: seq 0, a whole message, "
            "3 bytes: 61 62 63 |abc|\n"
            "       check 0: the start of a conversation without id; conversation id: none\n"
            "library: tarn_check_packet 0, tarn_read_packet_conv 0x00000000\n");
}

TEST_F(Inspect, SaysWhyADatagramIsRefused) {
  const auto result = run({"inspect", "410003"});

  EXPECT_EQ(result.status, kRefused);
  EXPECT_EQ(result.output,
            "datagram of 3 bytes\n"
            "    0  REFUSED, the magic is 0x41, not \"#\" or \"$\"\n"
            "       check -1: no datagram of this protocol; conversation id: none can be read\n"
            "library: tarn_check_packet -1, tarn_read_packet_conv 0xffffffff\n");
}

TEST_F(Inspect, ShowsWhatStandsBeforeARefusedSegment) {
  const auto result = run({"inspect", "2300 07000178 170000"});

  EXPECT_EQ(result.status, kRefused);
  EXPECT_EQ(result.output,
            "datagram of 9 bytes\n"
            "    0  header      magic \"#\" version 0\n"
            "    2  unreliable  type 1 flag 3 length 1: 1 byte: 78 |x|\n"
            "    6  REFUSED, segment type 5 is reserved\n"
            "       check 1: part of a conversation; conversation id: none\n"
            "library: tarn_check_packet 1, tarn_read_packet_conv 0x00000000\n");
}

TEST_F(Inspect, ReadsRawFiles) {
  make_file("raw", std::string("$\0\x07\0\x01x", 6));

  const auto result = run({"inspect", "raw"});

  EXPECT_EQ(result.status, kSuccess);
  EXPECT_NE(result.output.find("|x|"), std::string::npos) << result.output;
}

TEST_F(Inspect, ReadsFilesOfDigits) {
  make_file("digits", "0x24 0x00\n07:00:01-78\n");

  const auto result = run({"inspect", "digits"});

  EXPECT_EQ(result.status, kSuccess);
  EXPECT_NE(result.output.find("|x|"), std::string::npos) << result.output;
}

TEST_F(Inspect, ReadsStandardInput) {
  const auto result = run({"inspect"}, "240007000178\n");

  EXPECT_EQ(result.status, kSuccess);
  EXPECT_NE(result.output.find("|x|"), std::string::npos) << result.output;
}

TEST_F(Inspect, WantsAFileOrDigits) {
  const auto result = run({"inspect", "24007"});

  EXPECT_EQ(result.status, kFailure);
  EXPECT_EQ(result.errors, "tarn: \"24007\" is neither a file nor hexadecimal\n");
}
