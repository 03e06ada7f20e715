// TarnSocket: streams.
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>

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

using Tcp = tarn_test::Closing<TarnSocket, TarnSocket::TCP>;

}  // namespace

TEST(TarnSocketTcp, AcceptsAConnectionAsAnIpv4Stream) {
  Tcp listener;
  ASSERT_TRUE(listener->bind(0));
  ASSERT_TRUE(listener->listen());
  const OwnedFd peer = tarn_test::connect_tcp(port_of(listener->fd()));

  TarnSocket accepted = listener->accept();

  EXPECT_GT(accepted.fd(), 0);
  EXPECT_EQ(accepted.protocol(), TarnSocket::TCP);
  EXPECT_EQ(accepted.af(), TarnSocket::IPV4);
  EXPECT_TRUE(tarn_test::is_closed_by_exec(accepted.fd()));
  EXPECT_EQ(accepted.send("hello", 5), 5);
  EXPECT_EQ(tarn_test::receive_text(peer.get()), "hello");
  accepted.close();
}

TEST(TarnSocketTcp, LogsAFailedAcceptAndWrapsTheResult) {
  Tcp listener;
  ASSERT_TRUE(listener->bind(0));
  ASSERT_TRUE(listener->listen());
  listener->async();
  const LogCapture log;

  const TarnSocket accepted = listener->accept();

  EXPECT_EQ(accepted.fd(), -1);
  EXPECT_EQ(accepted.protocol(), TarnSocket::TCP);
  EXPECT_EQ(log.count(1, text("fd %d accept failed error %d", listener->fd(), EAGAIN)), 1);
}

TEST(TarnSocketTcp, LogsAFailedListen) {
  TarnSocket socket(-1, TarnSocket::TCP);
  const LogCapture log;

  EXPECT_FALSE(socket.listen());

  EXPECT_EQ(log.count(1, text("fd -1 listen failed error %d", EBADF)), 1);
}

TEST(TarnSocketTcp, ConnectsToAListener) {
  const OwnedFd listener = tarn_test::tcp_listener_on_loopback();
  Tcp socket;

  EXPECT_TRUE(socket->connect("127.0.0.1", static_cast<short>(port_of(listener.get()))));
}

TEST(TarnSocketTcp, SaysFalseWhileAConnectGoesOn) {
  const OwnedFd listener = tarn_test::tcp_listener_on_loopback();
  Tcp socket;
  socket->async();

  EXPECT_FALSE(socket->connect("127.0.0.1", static_cast<short>(port_of(listener.get()))));

  EXPECT_EQ(TarnSocket::last_error(), EINPROGRESS);
}

TEST(TarnSocketTcp, MovesWhatCameIntoItsBuffer) {
  const Ends ends = tarn_test::tcp_ends();
  TarnSocket socket(ends.near.get(), TarnSocket::TCP);
  tarn_test::send_text(ends.far.get(), "hello");
  EXPECT_EQ(socket.readable_len(), 0);
  ASSERT_TRUE(tarn_test::wait_readable(ends.near.get()));

  EXPECT_EQ(socket.read_all(), 5);

  EXPECT_EQ(socket.readable_len(), 5);
  EXPECT_EQ(std::string(socket.peek(), 5), "hello");
}

TEST(TarnSocketTcp, DropsWhatIsConsumed) {
  const Ends ends = tarn_test::tcp_ends();
  TarnSocket socket(ends.near.get(), TarnSocket::TCP);
  tarn_test::send_text(ends.far.get(), "hello");
  ASSERT_TRUE(tarn_test::wait_readable(ends.near.get()));
  socket.read_all();

  socket.consume(2);

  EXPECT_EQ(std::string(socket.peek(), 3), "llo");
}

TEST(TarnSocketTcp, CopiesItsBuffer) {
  const Ends ends = tarn_test::tcp_ends();
  TarnSocket socket(ends.near.get(), TarnSocket::TCP);
  tarn_test::send_text(ends.far.get(), "hello");
  ASSERT_TRUE(tarn_test::wait_readable(ends.near.get()));
  socket.read_all();

  TarnSocket copy(socket);
  socket.consume(5);

  EXPECT_EQ(copy.readable_len(), 5);
  EXPECT_EQ(std::string(copy.peek(), 5), "hello");
}

TEST(TarnSocketTcp, GivesTheResultOfAReadThatFailed) {
  const Ends ends = tarn_test::tcp_ends();
  TarnSocket socket(ends.near.get(), TarnSocket::TCP);
  socket.async();

  EXPECT_EQ(socket.read_all(), -1);
}

TEST(TarnSocketTcp, RaisesNoSignalWhenThePeerHasGone) {
  Ends ends = tarn_test::tcp_ends();
  TarnSocket socket(ends.near.get(), TarnSocket::TCP);
  tarn_test::reset_connection(ends.far);
  ASSERT_TRUE(tarn_test::wait_readable(ends.near.get()));
  char byte;
  EXPECT_EQ(recv(ends.near.get(), &byte, 1, 0), -1);  // takes the pending error
  const LogCapture log;

  EXPECT_EQ(socket.send("x", 1), -1);

  EXPECT_EQ(log.count(1, text("fd %d send failed error = %d", socket.fd(), EPIPE)), 1);
}

TEST(TarnSocketTcp, AbortsWhenReadAsDatagrams) {
  TarnSocket socket(-1, TarnSocket::TCP);
  char buffer[4];

  EXPECT_ABORT(socket.read(buffer, 4), assertion_without_line(kSource, "read", "protocol_ == UDP"));
}

TEST(TarnSocketTcp, AbortsWhenMoreIsConsumedThanItHolds) {
  TarnSocket socket(-1, TarnSocket::TCP);

  EXPECT_ABORT(socket.consume(1),
               assertion_without_line("tarn_io/tcp_buffer", "retrieve", "len <= readable_bytes()"));
}
