#include "tools/peer_address.h"

#include <gtest/gtest.h>

using namespace tarn_tool;

namespace {

std::string resolved(const std::string& text) {
  std::string error;
  const auto address = PeerAddress::resolve(text, error);
  return address ? address->text() : "error: " + error;
}

std::string listener(const std::string& text) {
  std::string error;
  const auto address = PeerAddress::resolve_listener(text, error);
  return address ? address->text() : "error: " + error;
}

}  // namespace

TEST(PeerAddress, ReadsBothFamilies) {
  EXPECT_EQ(resolved("127.0.0.1:9000"), "127.0.0.1:9000");
  EXPECT_EQ(resolved("[::1]:9000"), "[::1]:9000");
  EXPECT_EQ(resolved("[::ffff:127.0.0.1]:9"), "127.0.0.1:9");
}

TEST(PeerAddress, RefusesWhatIsNone) {
  for (const char* text : {"", "host", ":9", "host:", "host:port", "127.0.0.1:65536", "::1:9000",
                           "127.0.0.1:0", "127.0.0.1:-1", "[]:9"}) {
    EXPECT_EQ(resolved(text).substr(0, 6), "error:") << text;
  }
}

TEST(PeerAddress, SaysHowToWriteIpv6) {
  EXPECT_EQ(resolved("::1:9000"), "error: \"::1:9000\": write an IPv6 address as [ADDRESS]:PORT");
}

TEST(PeerAddress, ListensOnAPortOrAnAddress) {
  EXPECT_EQ(listener("9000"), "[::]:9000");
  EXPECT_EQ(listener("127.0.0.1:0"), "127.0.0.1:0");
  EXPECT_EQ(listener("70000").substr(0, 6), "error:");
}

TEST(PeerAddress, IsAKey) {
  std::string error;
  const auto a = *PeerAddress::resolve("127.0.0.1:1", error);
  const auto b = *PeerAddress::resolve("127.0.0.1:2", error);
  const auto c = *PeerAddress::resolve("127.0.0.2:1", error);
  EXPECT_TRUE(a == a);
  EXPECT_FALSE(a == b);
  EXPECT_FALSE(a == c);
  EXPECT_NE(a < b, b < a);
  EXPECT_NE(a < c, c < a);
}
