// TarnAddr: the strict parsers of address texts.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tarn_io/tarn_addr.h"

namespace {

using Raw = std::vector<unsigned char>;

constexpr unsigned char kUntouched = 0xEE;

// The address, or nothing; fails the test where a refused text touches the output.
Raw parse4(const char* text) {
  Raw out(4, kUntouched);
  if (TarnAddr::inet_pton4(text, out.data()) == 1) return out;
  EXPECT_EQ(out, Raw(4, kUntouched)) << text;
  return {};
}

Raw parse6(const char* text) {
  Raw out(16, kUntouched);
  if (TarnAddr::inet_pton6(text, out.data()) == 1) return out;
  EXPECT_EQ(out, Raw(16, kUntouched)) << text;
  return {};
}

Raw groups(std::initializer_list<unsigned> values) {
  Raw out;
  for (const unsigned value : values) {
    out.push_back(static_cast<unsigned char>(value >> 8));
    out.push_back(static_cast<unsigned char>(value));
  }
  return out;
}

struct Text {
  const char* text;
};

void PrintTo(const Text& t, std::ostream* out) { *out << '"' << t.text << '"'; }

}  // namespace

TEST(ParseIpv4, TakesADottedQuad) { EXPECT_EQ(parse4("1.2.3.4"), (Raw{1, 2, 3, 4})); }

TEST(ParseIpv4, TakesTheWholeRange) {
  EXPECT_EQ(parse4("0.0.0.0"), (Raw{0, 0, 0, 0}));
  EXPECT_EQ(parse4("255.255.255.255"), (Raw{255, 255, 255, 255}));
}

TEST(ParseIpv4, ReadsLeadingZerosAsDecimal) {
  EXPECT_EQ(parse4("01.002.3.4"), (Raw{1, 2, 3, 4}));
  EXPECT_EQ(parse4("010.000000008.3.4"), (Raw{10, 8, 3, 4}));
}

class RefusedIpv4 : public ::testing::TestWithParam<Text> {};

TEST_P(RefusedIpv4, GivesZeroAndTouchesNothing) {
  EXPECT_EQ(parse4(GetParam().text), Raw{});
  EXPECT_FALSE(TarnAddr::is_ipv4(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(
    Texts, RefusedIpv4,
    ::testing::Values(Text{""}, Text{"256.1.1.1"}, Text{"1.2.3"}, Text{"1.2.3."}, Text{"1.2.3.4."},
                      Text{"1..2.3"}, Text{".1.2.3"}, Text{" 1.2.3.4"}, Text{"1.2.3.4 "},
                      Text{"1.2.3.4.5"}, Text{"1.2.3.256"}, Text{"1.2.3.99999999999999999999"},
                      Text{"+1.2.3.4"}, Text{"-1.2.3.4"}, Text{"0x1.2.3.4"}, Text{"16909060"},
                      Text{"1.2.3.a"}, Text{"::1"}, Text{"."}, Text{"..."}, Text{"1.2.3.4\n"}));

TEST(ParseIpv6, TakesEightGroups) {
  EXPECT_EQ(parse6("1:2:3:4:5:6:7:8"), groups({1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(parse6("fFfF:0:aBcD:0:0:0:0:ffff"), groups({0xFFFF, 0, 0xABCD, 0, 0, 0, 0, 0xFFFF}));
}

TEST(ParseIpv6, FillsTheGapOfADoubleColonWithZeros) {
  EXPECT_EQ(parse6("::"), Raw(16, 0));
  EXPECT_EQ(parse6("::1"), groups({0, 0, 0, 0, 0, 0, 0, 1}));
  EXPECT_EQ(parse6("1::"), groups({1, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(parse6("1:2::7:8"), groups({1, 2, 0, 0, 0, 0, 7, 8}));
  EXPECT_EQ(parse6("1::2:3:4:5:6:7"), groups({1, 0, 2, 3, 4, 5, 6, 7}));
  EXPECT_EQ(parse6("64:ff9b::c000:221"), groups({0x64, 0xFF9B, 0, 0, 0, 0, 0xC000, 0x221}));
}

TEST(ParseIpv6, LetsADoubleColonStandForNothing) {
  EXPECT_EQ(parse6("1:2:3:4:5:6:7:8::"), groups({1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(parse6("::1:2:3:4:5:6:7:8"), groups({1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(ParseIpv6, TakesLongGroupsWhoseValueFits) {
  EXPECT_EQ(parse6("00001::0000000ffff"), groups({1, 0, 0, 0, 0, 0, 0, 0xFFFF}));
}

TEST(ParseIpv6, TakesAnIpv4Tail) {
  EXPECT_EQ(parse6("::ffff:1.2.3.4"), groups({0, 0, 0, 0, 0, 0xFFFF, 0x102, 0x304}));
  EXPECT_EQ(parse6("::1.2.3.4"), groups({0, 0, 0, 0, 0, 0, 0x102, 0x304}));
  EXPECT_EQ(parse6("1:2:3:4:5:6:1.2.3.4"), groups({1, 2, 3, 4, 5, 6, 0x102, 0x304}));
  EXPECT_EQ(parse6("::255.010.0.1"), groups({0, 0, 0, 0, 0, 0, 0xFF0A, 1}));
}

class RefusedIpv6 : public ::testing::TestWithParam<Text> {};

TEST_P(RefusedIpv6, GivesZeroAndTouchesNothing) {
  EXPECT_EQ(parse6(GetParam().text), Raw{});
  EXPECT_FALSE(TarnAddr::is_ipv6(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(
    Texts, RefusedIpv6,
    ::testing::Values(Text{""}, Text{":"}, Text{"1::2::3"}, Text{":1::"}, Text{":1"}, Text{"1:"},
                      Text{"12345::"}, Text{"10000::"}, Text{":::"}, Text{"1:::2"}, Text{"1"},
                      Text{"1:2:3:4:5:6:7"}, Text{"1:2:3:4:5:6:7:8:9"}, Text{"1:2:3:4:5:6:7:8:"},
                      Text{"1:2:3:4:5:6:7:8:9::"}, Text{"::1:2:3:4:5:6:7:8:9"}, Text{"g::"},
                      Text{" ::1"}, Text{"::1 "}, Text{"::1%lo"}, Text{"[::1]"}, Text{"::/0"},
                      Text{"1.2.3.4"}, Text{"1:2:3:4:5:6:7:1.2.3.4"}, Text{"1:2:3:4:5:1.2.3.4"},
                      Text{"::1.2.3"}, Text{"::1.2.3.4:1"}, Text{"::a.2.3.4"}, Text{"::.1.2.3"},
                      Text{"::256.2.3.4"}, Text{"::1.2.3.4.5"}, Text{"."}, Text{"::-1"}));

TEST(ParseIpv6, RefusesBytesOutsideAscii) {
  EXPECT_EQ(parse6("::\xC1"), Raw{});
  EXPECT_EQ(parse4("1.2.3.\xB1"), Raw{});
}

TEST(ParseAddress, RefusesNoTextAtAll) {
  EXPECT_EQ(parse4(nullptr), Raw{});
  EXPECT_EQ(parse6(nullptr), Raw{});
}

TEST(ParseAddress, TellsTheFamiliesApart) {
  EXPECT_TRUE(TarnAddr::is_ipv4("192.0.2.33"));
  EXPECT_FALSE(TarnAddr::is_ipv6("192.0.2.33"));
  EXPECT_TRUE(TarnAddr::is_ipv6("2001:db8::1"));
  EXPECT_FALSE(TarnAddr::is_ipv4("2001:db8::1"));
}
