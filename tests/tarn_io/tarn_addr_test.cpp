// TarnAddr: texts and ports, from and to system addresses.
#include "tarn_io/tarn_addr.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "tests/support/kit_death.h"

namespace {

union SystemAddress {
  sockaddr any;
  sockaddr_in v4;
  sockaddr_in6 v6;
};

SystemAddress system_v4(const char* text, uint16_t port) {
  SystemAddress address = {};
  address.v4.sin_family = AF_INET;
  inet_pton(AF_INET, text, &address.v4.sin_addr);
  address.v4.sin_port = htons(port);
  return address;
}

SystemAddress system_v6(const char* text, uint16_t port) {
  SystemAddress address;
  address.v6 = {};
  address.v6.sin6_family = AF_INET6;
  inet_pton(AF_INET6, text, &address.v6.sin6_addr);
  address.v6.sin6_port = htons(port);
  return address;
}

// The text of the IPv6 address that `ip` becomes.
std::string synthesised(const char* ip) {
  sockaddr_in6 out;
  EXPECT_TRUE(TarnAddr(ip, 1).get_sock_addr_v6(out));
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(AF_INET6, &out.sin6_addr, text, sizeof text);
}

std::string v4_text(const char* ip) {
  sockaddr_in out;
  EXPECT_TRUE(TarnAddr(ip, 1).get_sock_addr_v4(out));
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &out.sin_addr, text, sizeof text);
}

}  // namespace

TEST(TarnAddr, IsTheWildcardAtFirst) {
  const TarnAddr addr;

  EXPECT_EQ(addr.get_ip(), "0.0.0.0");
  EXPECT_EQ(addr.get_port(), 0);
}

TEST(TarnAddr, KeepsTextAndPortUnchanged) {
  const TarnAddr addr("no address", 65535);

  EXPECT_EQ(addr.get_ip(), "no address");
  EXPECT_EQ(addr.get_port(), 65535);
}

TEST(TarnAddr, TakesNoTextForAnEmptyOne) { EXPECT_EQ(TarnAddr(nullptr, 1).get_ip(), ""); }

TEST(TarnAddr, ReadsASystemIpv4Address) {
  SystemAddress from = system_v4("192.0.2.33", 9000);

  const TarnAddr addr(&from.any);

  EXPECT_EQ(addr.get_ip(), "192.0.2.33");
  EXPECT_EQ(addr.get_port(), 9000);
}

TEST(TarnAddr, ReadsTheLongestIpv4Text) {
  SystemAddress from = system_v4("255.255.255.255", 65535);

  EXPECT_EQ(TarnAddr(&from.any).get_ip(), "255.255.255.255");
}

TEST(TarnAddr, ReadsASystemIpv6AddressOfUpTo15Characters) {
  SystemAddress from = system_v6("2001:db8::12:34", 9000);

  const TarnAddr addr(&from.any);

  EXPECT_EQ(addr.get_ip(), "2001:db8::12:34");
  EXPECT_EQ(addr.get_port(), 9000);
}

TEST(TarnAddr, KeepsNoIpv6TextOf16Characters) {
  SystemAddress from = system_v6("2001:db8::12:345", 9000);

  const TarnAddr addr(&from.any);

  EXPECT_EQ(addr.get_ip(), "");
  EXPECT_EQ(addr.get_port(), 9000);
}

TEST(TarnAddr, AbortsOnAFamilyItDoesNotKnow) {
  SystemAddress from = {};
  from.any.sa_family = AF_UNIX;

  EXPECT_ABORT(TarnAddr{&from.any},
               tarn_test::assertion_without_line("tarn_io/tarn_addr", "TarnAddr", "false"));
}

TEST(TarnAddr, GivesAnIpv4SystemAddress) {
  sockaddr_in out;

  EXPECT_TRUE(TarnAddr("192.0.2.33", 0x1234).get_sock_addr_v4(out));

  EXPECT_EQ(out.sin_family, AF_INET);
  EXPECT_EQ(out.sin_port, htons(0x1234));
  EXPECT_EQ(ntohl(out.sin_addr.s_addr), 0xC0000221u);
}

TEST(TarnAddr, RefusesAnIpv6TextForIpv4) {
  sockaddr_in out;

  EXPECT_FALSE(TarnAddr("::1", 1).get_sock_addr_v4(out));
  EXPECT_FALSE(TarnAddr("::ffff:1.2.3.4", 1).get_sock_addr_v4(out));
}

TEST(TarnAddr, MakesTheBroadcastAddressOfATextThatIsNone) {
  EXPECT_EQ(v4_text("no address"), "255.255.255.255");
  EXPECT_EQ(v4_text(""), "255.255.255.255");
  EXPECT_EQ(v4_text("1::2::3"), "255.255.255.255");
}

TEST(TarnAddr, ReadsIpv4TextsAsTheSystemDoesWhenItConnects) {
  EXPECT_EQ(v4_text("127.1"), "127.0.0.1");
  EXPECT_EQ(v4_text("010.0.0.1"), "8.0.0.1");
}

TEST(TarnAddr, GivesAnIpv6SystemAddressAsItIs) {
  sockaddr_in6 out;

  EXPECT_TRUE(TarnAddr("2001:db8::1", 0x1234).get_sock_addr_v6(out));

  EXPECT_EQ(out.sin6_family, AF_INET6);
  EXPECT_EQ(out.sin6_port, htons(0x1234));
  EXPECT_EQ(out.sin6_flowinfo, 0u);
  EXPECT_EQ(out.sin6_scope_id, 0u);
  EXPECT_EQ(synthesised("2001:db8::1"), "2001:db8::1");
}

TEST(TarnAddr, LeavesNothingOfWhatStoodInASystemAddress) {
  SystemAddress expected = system_v4("1.2.3.4", 5);
  SystemAddress out;
  memset(&out, 0xFF, sizeof out);
  EXPECT_TRUE(TarnAddr("1.2.3.4", 5).get_sock_addr_v4(out.v4));
  EXPECT_EQ(memcmp(&out.v4, &expected.v4, sizeof out.v4), 0);

  expected = system_v6("1::2", 5);
  memset(&out, 0xFF, sizeof out);
  EXPECT_TRUE(TarnAddr("1::2", 5).get_sock_addr_v6(out.v6));
  EXPECT_EQ(memcmp(&out.v6, &expected.v6, sizeof out.v6), 0);
}

TEST(TarnAddr, MapsAnIpv4TextIntoTheNat64Prefix) {
  EXPECT_EQ(synthesised("192.0.2.33"), "64:ff9b::c000:221");
  EXPECT_EQ(synthesised("10.1.2.3"), "64:ff9b::a01:203");
  EXPECT_EQ(synthesised("0.0.0.0"), "64:ff9b::");
  EXPECT_EQ(synthesised("0.1.0.0"), "64:ff9b::1:0");
}

TEST(TarnAddr, MapsATextThatIsNoneToTheBroadcastAddress) {
  EXPECT_EQ(synthesised("no address"), "64:ff9b::ffff:ffff");
}
