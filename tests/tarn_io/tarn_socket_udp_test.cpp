// TarnSocket: datagrams.
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tarn_io/tarn_socket.h"
#include "tests/support/kit_death.h"
#include "tests/support/log_capture.h"
#include "tests/support/net_sockets.h"
#include "tests/support/session_fixture.h"

using tarn_test::assertion_without_line;
using tarn_test::Ends;
using tarn_test::LogCapture;
using tarn_test::OwnedFd;
using tarn_test::port_of;
using tarn_test::text;

namespace {

constexpr char kSource[] = "tarn_io/tarn_socket";

using Udp = tarn_test::Closing<TarnSocket, TarnSocket::UDP>;

}  // namespace

TEST(TarnSocketUdp, SendsToWhereItIsConnected) {
  const OwnedFd peer = tarn_test::udp_on_loopback();
  Udp socket;
  ASSERT_TRUE(socket->connect("127.0.0.1", static_cast<short>(port_of(peer.get()))));

  EXPECT_EQ(socket->send("hello", 5), 5);

  EXPECT_EQ(tarn_test::receive_text(peer.get()), "hello");
}

// They come before it is connected, as others under way at that moment would come after.
TEST(TarnSocketUdp, LeavesOutWhatOthersSendToASocketThatReadsOnlyFromItsPeer) {
  const OwnedFd peer = tarn_test::udp_on_loopback();
  const OwnedFd other = tarn_test::udp_on_loopback();
  Udp socket;
  socket->async();
  ASSERT_TRUE(socket->bind(0));
  const uint16_t port = port_of(socket->fd());
  tarn_test::send_text_to(other.get(), port, "not mine");
  tarn_test::send_text_to(peer.get(), port, "mine");
  tarn_test::send_text_to(other.get(), port, "nor this");
  TarnAddr addr("127.0.0.1", port_of(peer.get()));
  ASSERT_TRUE(socket->connect(addr));
  char datagram[100];

  socket->read_only_from(addr);

  EXPECT_EQ(socket->read(datagram, sizeof datagram), 4);
  EXPECT_EQ(std::string(datagram, 4), "mine");
  EXPECT_EQ(socket->read(datagram, sizeof datagram), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST(TarnSocketUdp, ReadsAnEmptyDatagramOfItsPeers) {
  const OwnedFd peer = tarn_test::udp_on_loopback();
  Udp socket;
  ASSERT_TRUE(socket->bind(0));
  TarnAddr addr("127.0.0.1", port_of(peer.get()));
  ASSERT_TRUE(socket->connect(addr));
  socket->read_only_from(addr);
  tarn_test::send_text_to(peer.get(), port_of(socket->fd()), "");
  char datagram[100];

  EXPECT_EQ(socket->read(datagram, sizeof datagram), 0);
}

TEST(TarnSocketUdp, ConnectsToAnAddressObject) {
  const OwnedFd peer = tarn_test::udp_on_loopback();
  Udp socket;
  TarnAddr addr("127.0.0.1", port_of(peer.get()));

  EXPECT_TRUE(socket->connect(addr));
}

TEST(TarnSocketUdp, RefusesAnIpv6AddressWithoutASystemCall) {
  Udp socket;
  errno = 0;

  EXPECT_FALSE(socket->connect("::1", 9));

  EXPECT_EQ(errno, 0);
}

TEST(TarnSocketUdp, LogsAFailedSendAndReturnsIt) {
  Udp socket;
  const LogCapture log;

  EXPECT_EQ(socket->send("hello", 5), -1);

  EXPECT_EQ(log.count(1, text("fd %d send failed error = %d", socket->fd(), EDESTADDRREQ)), 1);
}

TEST(TarnSocketUdp, BindsTheWildcardAddress) {
  Udp socket;
  ASSERT_TRUE(socket->bind(0));

  tarn_test::send_text_to(tarn_test::udp_on_loopback().get(), port_of(socket->fd()), "hello");

  EXPECT_EQ(tarn_test::receive_text(socket->fd()), "hello");
}

TEST(TarnSocketUdp, LogsAPortThatItCannotBind) {
  const OwnedFd busy = tarn_test::udp_on_loopback();
  const uint16_t port = port_of(busy.get());
  Udp socket;
  const LogCapture log;

  EXPECT_FALSE(socket->bind(port));

  EXPECT_EQ(
      log.count(1, text("fd %d bind port %u failed error %d", socket->fd(), port, EADDRINUSE)), 1);
}

TEST(TarnSocketUdp, ReadsOneDatagramAtATime) {
  const Ends ends = tarn_test::udp_ends();
  TarnSocket socket(ends.near.get());
  tarn_test::send_text(ends.far.get(), "one");
  tarn_test::send_text(ends.far.get(), "three");
  char buffer[16];

  EXPECT_EQ(socket.read(buffer, sizeof buffer), 3);
  EXPECT_EQ(socket.read(buffer, sizeof buffer), 5);

  EXPECT_EQ(std::string(buffer, 5), "three");
}

TEST(TarnSocketUdp, CutsADatagramToTheBuffer) {
  const Ends ends = tarn_test::udp_ends();
  TarnSocket socket(ends.near.get());
  tarn_test::send_text(ends.far.get(), "three");
  char buffer[16] = {};

  EXPECT_EQ(socket.read(buffer, 2), 2);

  EXPECT_STREQ(buffer, "th");
  EXPECT_FALSE(tarn_test::wait_readable(ends.near.get(), 0));
}

TEST(TarnSocketUdp, GivesTheSizeOfTheNextDatagram) {
  const Ends ends = tarn_test::udp_ends();
  TarnSocket socket(ends.near.get());
  EXPECT_EQ(socket.readable_len(), 0);

  tarn_test::send_text(ends.far.get(), "three");
  tarn_test::send_text(ends.far.get(), "seventeen");
  ASSERT_TRUE(tarn_test::wait_readable(ends.near.get()));

  EXPECT_EQ(socket.readable_len(), 5);
}

TEST(TarnSocketUdp, SaysNothingIsThereAtOnceWhenNonBlocking) {
  const Ends ends = tarn_test::udp_ends();
  TarnSocket socket(ends.near.get());
  socket.async();
  char buffer[16];

  EXPECT_EQ(socket.read(buffer, sizeof buffer), -1);

  EXPECT_EQ(TarnSocket::last_error(), EAGAIN);
}

TEST(TarnSocketUdp, TellsWhereADatagramCameFrom) {
  const OwnedFd peer = tarn_test::udp_on_loopback();
  Udp socket;
  ASSERT_TRUE(socket->bind(0));
  tarn_test::send_text_to(peer.get(), port_of(socket->fd()), "hello");
  char buffer[16];
  TarnAddr from;

  EXPECT_EQ(socket->readfrom(buffer, sizeof buffer, from), 5);

  EXPECT_EQ(std::string(buffer, 5), "hello");
  EXPECT_EQ(from.get_ip(), "127.0.0.1");
  EXPECT_EQ(from.get_port(), port_of(peer.get()));
}

TEST(TarnSocketUdp, AbortsWhenThereIsNoDatagramToTellTheSourceOf) {
  Udp socket;
  socket->async();
  char buffer[16];
  TarnAddr from;

  EXPECT_ABORT(socket->readfrom(buffer, sizeof buffer, from),
               assertion_without_line("tarn_io/tarn_addr", "TarnAddr", "false"));
}

TEST(TarnSocketUdp, AbortsWhenItsBufferIsLookedAt) {
  TarnSocket socket(-1, TarnSocket::UDP);

  EXPECT_ABORT(socket.peek(), assertion_without_line(kSource, "peek", "protocol_ == TCP"));
  EXPECT_ABORT(socket.consume(0), assertion_without_line(kSource, "consume", "protocol_ == TCP"));
  EXPECT_ABORT(socket.read_all(), assertion_without_line(kSource, "read_all", "protocol_ == TCP"));
}
