// TarnSocket: the family that the host reaches, asked for in networks of the test's own.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <string>

#include "tarn_io/tarn_socket.h"
#include "tests/support/log_capture.h"
#include "tests/support/net_namespace.h"
#include "tests/support/net_sockets.h"
#include "tests/support/session_fixture.h"

using tarn_test::LogCapture;
using tarn_test::NetNamespace;
using tarn_test::OwnedFd;

namespace {

// Where 192.0.2.33 is found behind the translator's prefix.
constexpr char kMapped[] = "64:ff9b::c000:221";

bool reach_ipv4(const NetNamespace& net) { return net.ip("-4 route add default dev lo"); }

// The address stands on loopback, which every system has. The kernel delivers to it a little after
// it was added.
bool reach_ipv6(const NetNamespace& net) {
  const std::string mapped = kMapped;
  return net.ip("-6 addr add " + mapped + "/128 dev lo nodad") &&
         net.ip("-6 route add 2000::/3 dev lo") && tarn_test::wait_until([&] {
           return net.ip("-6 route get " + mapped + " 2>/dev/null | grep -q ^local");
         });
}

// A socket at the mapped address, on a port of the system's choice.
OwnedFd mapped_peer(int type) {
  OwnedFd fd(socket(AF_INET6, type, 0));
  union {
    sockaddr any;
    sockaddr_in6 v6;
  } address;
  address.v6 = {};
  address.v6.sin6_family = AF_INET6;
  inet_pton(AF_INET6, kMapped, &address.v6.sin6_addr);
  if (bind(fd.get(), &address.any, sizeof address.v6) != 0) fd.reset();
  return fd;
}

TarnSocket::AddrFamily family_of_a_new_socket() {
  TarnSocket socket(TarnSocket::UDP);
  const TarnSocket::AddrFamily af = socket.af();
  const int domain = tarn_test::socket_option(socket.fd(), SO_DOMAIN);
  EXPECT_EQ(domain, af == TarnSocket::IPV6 ? AF_INET6 : AF_INET);
  socket.close();
  return af;
}

}  // namespace

TEST(TarnSocketFamily, IsIpv4WhereOnlyThatIsReachable) {
  const NetNamespace net;
  TARN_REQUIRE_NAMESPACE(net);
  ASSERT_TRUE(reach_ipv4(net));

  EXPECT_TRUE(TarnSocket::has_ip_v4());
  EXPECT_FALSE(TarnSocket::has_ip_v6());
  EXPECT_FALSE(TarnSocket::ip_v6_only());
  EXPECT_EQ(family_of_a_new_socket(), TarnSocket::IPV4);
}

TEST(TarnSocketFamily, IsIpv6WhereOnlyThatIsReachable) {
  const NetNamespace net;
  TARN_REQUIRE_NAMESPACE(net);
  ASSERT_TRUE(reach_ipv6(net));

  EXPECT_FALSE(TarnSocket::has_ip_v4());
  EXPECT_TRUE(TarnSocket::has_ip_v6());
  EXPECT_TRUE(TarnSocket::ip_v6_only());
  EXPECT_EQ(family_of_a_new_socket(), TarnSocket::IPV6);
}

TEST(TarnSocketFamily, IsIpv4WhereBothAreReachable) {
  const NetNamespace net;
  TARN_REQUIRE_NAMESPACE(net);
  ASSERT_TRUE(reach_ipv4(net) && reach_ipv6(net));

  EXPECT_FALSE(TarnSocket::ip_v6_only());
  EXPECT_EQ(family_of_a_new_socket(), TarnSocket::IPV4);
}

TEST(TarnSocketFamily, IsIpv4WhereNeitherIsReachable) {
  const NetNamespace net;
  TARN_REQUIRE_NAMESPACE(net);
  const LogCapture log;

  EXPECT_EQ(family_of_a_new_socket(), TarnSocket::IPV4);

  EXPECT_EQ(log.count(5, "chenck ipv4 0"), 1);
  EXPECT_EQ(log.count(5, "chenck ipv6 0"), 1);
}

TEST(TarnSocketFamily, FollowsAChangeOfNetwork) {
  const NetNamespace net;
  TARN_REQUIRE_NAMESPACE(net);
  ASSERT_TRUE(reach_ipv6(net));
  const TarnSocket::AddrFamily before = family_of_a_new_socket();

  ASSERT_TRUE(reach_ipv4(net));

  EXPECT_EQ(before, TarnSocket::IPV6);
  EXPECT_EQ(family_of_a_new_socket(), TarnSocket::IPV4);
}

TEST(TarnSocketFamily, AsksForIpv6OnlyWhereIpv4IsNotReachable) {
  const NetNamespace net;
  TARN_REQUIRE_NAMESPACE(net);
  ASSERT_TRUE(reach_ipv4(net));
  const LogCapture log;

  family_of_a_new_socket();

  EXPECT_EQ(log.count(5, "chenck ipv4 1"), 1);
  EXPECT_EQ(log.count_containing("chenck ipv6"), 0);
}

TEST(TarnSocketFamily, ReachesAnIpv4AddressThroughTheMappedOne) {
  const NetNamespace net;
  TARN_REQUIRE_NAMESPACE(net);
  ASSERT_TRUE(reach_ipv6(net));
  const OwnedFd peer = mapped_peer(SOCK_DGRAM);
  ASSERT_GE(peer.get(), 0);
  TarnSocket socket(TarnSocket::UDP);
  ASSERT_EQ(socket.af(), TarnSocket::IPV6);

  EXPECT_TRUE(socket.connect("192.0.2.33", static_cast<short>(tarn_test::port_of(peer.get()))));
  EXPECT_EQ(socket.send("hello", 5), 5);

  EXPECT_EQ(tarn_test::receive_text(peer.get()), "hello");
  socket.close();
}

TEST(TarnSocketFamily, TellsTheIpv6SourceOfADatagram) {
  const NetNamespace net;
  TARN_REQUIRE_NAMESPACE(net);
  ASSERT_TRUE(reach_ipv6(net));
  TarnSocket receiver(TarnSocket::UDP);
  TarnSocket sender(TarnSocket::UDP);
  ASSERT_TRUE(receiver.bind(0) && sender.bind(0));
  const uint16_t port = tarn_test::port_of(receiver.fd());
  ASSERT_TRUE(sender.connect("::1", static_cast<short>(port)));
  sender.send("hello", 5);
  char buffer[16];
  TarnAddr from;

  EXPECT_EQ(receiver.readfrom(buffer, sizeof buffer, from), 5);

  EXPECT_EQ(from.get_ip(), "::1");
  EXPECT_EQ(from.get_port(), tarn_test::port_of(sender.fd()));
  receiver.close();
  sender.close();
}

TEST(TarnSocketFamily, LeavesOutWhatOthersSendToAnIpv6SocketThatReadsOnlyFromItsPeer) {
  const NetNamespace net;
  TARN_REQUIRE_NAMESPACE(net);
  ASSERT_TRUE(reach_ipv6(net));
  TarnSocket receiver(TarnSocket::UDP);
  TarnSocket peer(TarnSocket::UDP);
  TarnSocket other(TarnSocket::UDP);
  ASSERT_TRUE(receiver.bind(0) && receiver.async() && peer.bind(0) && other.bind(0));
  const auto port = static_cast<short>(tarn_test::port_of(receiver.fd()));
  ASSERT_TRUE(peer.connect("::1", port) && other.connect("::1", port));
  other.send("not mine", 8);
  peer.send("mine", 4);
  TarnAddr addr("::1", tarn_test::port_of(peer.fd()));
  ASSERT_TRUE(receiver.connect(addr));
  char buffer[16];

  receiver.read_only_from(addr);

  EXPECT_EQ(receiver.read(buffer, sizeof buffer), 4);
  EXPECT_EQ(std::string(buffer, 4), "mine");
  EXPECT_EQ(receiver.read(buffer, sizeof buffer), -1);
  receiver.close();
  peer.close();
  other.close();
}

TEST(TarnSocketFamily, ReportsAcceptedConnectionsAsIpv4OnIpv6Too) {
  const NetNamespace net;
  TARN_REQUIRE_NAMESPACE(net);
  ASSERT_TRUE(reach_ipv6(net));
  TarnSocket listener(TarnSocket::TCP);
  ASSERT_TRUE(listener.bind(0) && listener.listen());
  TarnSocket peer(TarnSocket::TCP);
  ASSERT_TRUE(peer.connect("192.0.2.33", static_cast<short>(tarn_test::port_of(listener.fd()))));

  TarnSocket accepted = listener.accept();

  EXPECT_GT(accepted.fd(), 0);
  EXPECT_EQ(listener.af(), TarnSocket::IPV6);
  EXPECT_EQ(accepted.af(), TarnSocket::IPV4);
  accepted.close();
  peer.close();
  listener.close();
}
