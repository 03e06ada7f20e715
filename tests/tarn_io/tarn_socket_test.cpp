// TarnSocket: opening, wrapping, options, closing.
#include "tarn_io/tarn_socket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tests/support/log_capture.h"
#include "tests/support/net_sockets.h"
#include "tests/support/session_fixture.h"

using tarn_test::LogCapture;
using tarn_test::OwnedFd;
using tarn_test::socket_option;
using tarn_test::text;

namespace {

struct Kind {
  TarnSocket::AddrFamily af;
  TarnSocket::Protocol protocol;
  int domain;
  int type;
};

// Not one of the named values.
constexpr auto kUnknown = static_cast<TarnSocket::Protocol>(7);

// A free descriptor number that stays free until something is opened.
int free_number() {
  const int fd = dup(2);
  close(fd);
  return fd;
}

}  // namespace

class CreatedSocket : public ::testing::TestWithParam<Kind> {};

TEST_P(CreatedSocket, HasTheDomainAndTypeAskedFor) {
  const Kind kind = GetParam();

  const OwnedFd fd(TarnSocket::create_socket(kind.af, kind.protocol));

  EXPECT_EQ(socket_option(fd.get(), SO_DOMAIN), kind.domain);
  EXPECT_EQ(socket_option(fd.get(), SO_TYPE), kind.type);
}

TEST_P(CreatedSocket, IsClosedByAnExec) {
  const OwnedFd fd(TarnSocket::create_socket(GetParam().af, GetParam().protocol));

  EXPECT_TRUE(tarn_test::is_closed_by_exec(fd.get()));
}

TEST_P(CreatedSocket, IsLoggedWithItsDescriptorFamilyAndProtocol) {
  const LogCapture log;

  const OwnedFd fd(TarnSocket::create_socket(GetParam().af, GetParam().protocol));

  EXPECT_EQ(log.count(5, text("create socket fd %d af %d protocol %d", fd.get(), GetParam().af,
                              GetParam().protocol)),
            1);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, CreatedSocket,
    ::testing::Values(Kind{TarnSocket::IPV4, TarnSocket::UDP, AF_INET, SOCK_DGRAM},
                      Kind{TarnSocket::IPV4, TarnSocket::TCP, AF_INET, SOCK_STREAM},
                      Kind{TarnSocket::IPV6, TarnSocket::UDP, AF_INET6, SOCK_DGRAM},
                      Kind{TarnSocket::IPV6, TarnSocket::TCP, AF_INET6, SOCK_STREAM}));

TEST(TarnSocket, NumbersItsProtocolsAndFamilies) {
  EXPECT_EQ(TarnSocket::TCP, 0);
  EXPECT_EQ(TarnSocket::Protocol::UDP, 1);
  EXPECT_EQ(TarnSocket::IPV4, 0);
  EXPECT_EQ(TarnSocket::AddrFamily::IPV6, 1);
}

TEST(TarnSocket, IsCreatedAs0ForAProtocolThatThereIsNot) {
  const LogCapture log;

  EXPECT_EQ(TarnSocket::create_socket(TarnSocket::IPV4, kUnknown), 0);

  EXPECT_EQ(log.count_containing("create socket fd 0 af 0 protocol "), 1);
}

TEST(TarnSocket, ProbesTheHostWhenItIsOpened) {
  const LogCapture log;

  TarnSocket socket(TarnSocket::UDP);

  EXPECT_EQ(log.count_containing("chenck ipv4 "), 1);
  EXPECT_EQ(log.lines().at(0).level, 5);
  socket.close();
}

TEST(TarnSocket, TakesAWrappedDescriptorForIpv4Udp) {
  const TarnSocket socket(42);

  EXPECT_EQ(socket.fd(), 42);
  EXPECT_EQ(socket.af(), TarnSocket::IPV4);
  EXPECT_EQ(socket.protocol(), TarnSocket::UDP);
}

TEST(TarnSocket, WrapsADescriptorWithItsProtocol) {
  const TarnSocket socket(42, TarnSocket::TCP);

  EXPECT_EQ(socket.fd(), 42);
  EXPECT_EQ(socket.af(), TarnSocket::IPV4);
  EXPECT_EQ(socket.protocol(), TarnSocket::TCP);
}

TEST(TarnSocket, LeavesTheDescriptorOpenWhenItGoes) {
  const OwnedFd fd = tarn_test::udp_on_loopback();

  { const TarnSocket socket(fd.get()); }

  EXPECT_TRUE(tarn_test::is_open(fd.get()));
}

TEST(TarnSocket, SharesTheDescriptorWithItsCopies) {
  const OwnedFd fd = tarn_test::udp_on_loopback();
  const TarnSocket socket(fd.get(), TarnSocket::TCP);

  const TarnSocket copy(socket);

  EXPECT_EQ(copy.fd(), fd.get());
  EXPECT_EQ(copy.protocol(), TarnSocket::TCP);
}

TEST(TarnSocket, ClosesOnceAndForgetsTheDescriptor) {
  OwnedFd fd = tarn_test::udp_on_loopback();
  const int number = fd.release();
  TarnSocket socket(number);
  const LogCapture log;

  socket.close();

  EXPECT_FALSE(tarn_test::is_open(number));
  EXPECT_EQ(socket.fd(), -1);
  EXPECT_EQ(log.count(5, text("close socket %d", number)), 1);
}

TEST(TarnSocket, LogsASecondCloseWithoutADescriptor) {
  TarnSocket socket(-1);
  const LogCapture log;

  socket.close();

  EXPECT_EQ(log.count(5, "close socket -1"), 1);
  EXPECT_EQ(socket.fd(), -1);
}

TEST(TarnSocket, NeverClosesDescriptor0) {
  // Taken where the program was started without it.
  if (!tarn_test::is_open(0)) open("/dev/null", O_RDONLY);
  TarnSocket socket(0);
  const LogCapture log;

  socket.close();

  EXPECT_TRUE(tarn_test::is_open(0));
  EXPECT_EQ(socket.fd(), -1);
  EXPECT_EQ(log.count(5, "close socket 0"), 1);
}

TEST(TarnSocket, BecomesNonBlocking) {
  const OwnedFd fd = tarn_test::udp_on_loopback();
  TarnSocket socket(fd.get());

  EXPECT_TRUE(socket.async());

  EXPECT_TRUE(tarn_test::is_non_blocking(fd.get()));
}

TEST(TarnSocket, DoesNotBecomeNonBlockingWithoutADescriptor) {
  EXPECT_FALSE(TarnSocket(free_number()).async());
}

TEST(TarnSocket, SaysFalseWhenReuseSucceeded) {
  const OwnedFd fd = tarn_test::udp_on_loopback();
  TarnSocket socket(fd.get());

  EXPECT_FALSE(socket.reuse());

  EXPECT_EQ(socket_option(fd.get(), SO_REUSEADDR), 1);
}

TEST(TarnSocket, SaysTrueWhenReuseFailed) { EXPECT_TRUE(TarnSocket(free_number()).reuse()); }

TEST(TarnSocket, GivesTheErrorOfTheLastCall) {
  errno = ENETDOWN;

  EXPECT_EQ(TarnSocket::last_error(), ENETDOWN);
}

TEST(TarnSocket, FindsARouteToLoopbackWithoutSending) {
  const OwnedFd peer = tarn_test::udp_on_loopback();
  union {
    sockaddr any;
    sockaddr_in v4;
  } address = {};
  address.v4.sin_family = AF_INET;
  address.v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.v4.sin_port = htons(tarn_test::port_of(peer.get()));

  EXPECT_TRUE(TarnSocket::ip_stack_check_connect(AF_INET, &address.any, sizeof address.v4));

  EXPECT_FALSE(tarn_test::wait_readable(peer.get(), 0));
}

TEST(TarnSocket, FindsNoRouteInADomainThatThereIsNot) {
  sockaddr address = {};

  EXPECT_FALSE(TarnSocket::ip_stack_check_connect(-1, &address, sizeof address));
}

TEST(TarnSocket, OpensNothingThatStaysOpenToProbe) {
  const int before = free_number();

  TarnSocket::has_ip_v4();
  TarnSocket::has_ip_v6();

  EXPECT_EQ(free_number(), before);
}
