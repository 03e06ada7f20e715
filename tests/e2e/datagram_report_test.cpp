// The tool's own reading of datagrams, held against the library's.
#include "tools/datagram_report.h"

#include <gtest/gtest.h>
#include <tarn/tarn.h>

#include <random>

using namespace tarn_tool;

namespace {

DatagramReport report_of(const char* hex) { return report_datagram(*parse_hex(hex)); }

void expect_agreement(std::string datagram) {
  const auto report = report_datagram(datagram);
  const int size = static_cast<int>(datagram.size());
  EXPECT_EQ(report.check, tarn_check_packet(datagram.data(), size)) << report.text;
  EXPECT_EQ(report.conv, tarn_read_packet_conv(datagram.data(), size)) << report.text;
}

// A datagram of a few segments whose types and lengths are right more often than not.
std::string plausible(std::mt19937& random) {
  std::string bytes(random() % 10 == 0 ? "#" : "$");
  bytes += static_cast<char>(random() % 10 == 0 ? random() : 0);
  for (unsigned segments = random() % 4; segments > 0; --segments) {
    const std::size_t size = random() % 7;
    const std::size_t said = random() % 8 == 0 ? random() % 12 : size;
    bytes += static_cast<char>((random() % 8) << 2 | (random() & 3));
    bytes += '\0';
    bytes += static_cast<char>(said);
    for (std::size_t i = 0; i < size; ++i) bytes += static_cast<char>(random() % 3);
  }
  if (random() % 6 == 0 && !bytes.empty()) bytes.resize(random() % bytes.size());
  return bytes;
}

}  // namespace

TEST(DatagramReport, AgreesWithTheLibraryOnPlausibleDatagrams) {
  std::mt19937 random(3);
  for (int i = 0; i < 50000; ++i) expect_agreement(plausible(random));
}

TEST(DatagramReport, AgreesWithTheLibraryOnNoise) {
  std::mt19937 random(4);
  for (int i = 0; i < 20000; ++i) {
    std::string bytes(random() % 40, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    expect_agreement(bytes);
  }
}

TEST(DatagramReport, AcceptsEveryTypeOfSegment) {
  EXPECT_TRUE(
      report_of("2400 1b000400000009 0f00020007 0b0004000a000c 0300030001ff 070001aa 130000")
          .accepted);
}

TEST(DatagramReport, RefusesWhatASessionIgnores) {
  EXPECT_FALSE(report_of("2400 0300020000").accepted);    // reliable without a byte
  EXPECT_FALSE(report_of("2400 070000").accepted);        // unreliable without a byte
  EXPECT_FALSE(report_of("2400 0b0000").accepted);        // no acknowledgement
  EXPECT_FALSE(report_of("2400 0b0003000102").accepted);  // one and a half
  EXPECT_FALSE(report_of("2400 0f000100").accepted);      // half a cumulative one
  EXPECT_FALSE(report_of("2400 1b0003000000").accepted);  // an id of three bytes
  EXPECT_FALSE(report_of("2400").accepted);               // nothing
}

TEST(DatagramReport, RefusesTrailingBytes) {
  const auto report = report_of("2400 07000161 0b");
  EXPECT_FALSE(report.accepted);
  EXPECT_NE(report.text.find("    6  REFUSED, a segment head takes 3 bytes, 1 is left"),
            std::string::npos)
      << report.text;
}

TEST(DatagramReport, ShowsTheBeginningOfALongPayload) {
  const auto report = report_datagram(std::string("$\0\x07\0\x20", 5) + std::string(32, 'a'));
  EXPECT_NE(report.text.find("32 bytes: 61 61 61 61 61 61 61 61 61 61 61 61 61 61 61 61 "
                             "|aaaaaaaaaaaaaaaa| ..."),
            std::string::npos)
      << report.text;
}

TEST(ParseHex, TakesDigitsAndWhatSeparatesThem) {
  EXPECT_EQ(parse_hex("00fF7a"), std::string("\0\xff\x7a", 3));
  EXPECT_EQ(parse_hex(" 24:00-1b\n0x41, 0X42\t"), std::string("\x24\0\x1b\x41\x42", 5));
  EXPECT_EQ(parse_hex(""), "");
}

TEST(ParseHex, RefusesAnythingElse) {
  for (const char* text : {"2", "2 4", "0x", "g0", "24.00", "x24", "0xx24", "24 0"}) {
    EXPECT_FALSE(parse_hex(text)) << text;
  }
}
