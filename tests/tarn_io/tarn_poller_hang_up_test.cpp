// TarnPoller: hang-ups and errors.
#include <errno.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "tarn_io/tarn_poller.h"
#include "tarn_io/tarn_socket.h"
#include "tests/support/net_call.h"
#include "tests/support/net_sockets.h"
#include "tests/support/session_fixture.h"

using tarn_test::Call;
using tarn_test::Ends;
using tarn_test::OwnedFd;

namespace {

constexpr unsigned int kLong = 5000;  // ms
constexpr unsigned int kShort = 60;   // ms
// In that time; a loop that spins makes thousands.
constexpr int kFewPasses = 30;

struct Dispatch {
  short revents;
  const char* calls;  // r, w, e in order
};

void PrintTo(const Dispatch& d, std::ostream* out) { *out << d.revents << " -> " << d.calls; }

// Passes of `poll` that came back within `ms` milliseconds.
int passes_within(TarnPoller& poller, unsigned int ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  int passes = 0;
  while (std::chrono::steady_clock::now() < end) {
    poller.poll(ms);
    ++passes;
  }
  return passes;
}

// Takes it.
int pending_error(int fd) {
  int error = 0;
  socklen_t size = sizeof error;
  EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size), 0);
  return error;
}

// A TCP socket that is neither connected nor listening: it hangs up as it stands.
OwnedFd idle_tcp() { return OwnedFd(socket(AF_INET, SOCK_STREAM, 0)); }

}  // namespace

class DispatchedEvents : public ::testing::TestWithParam<Dispatch> {};

TEST_P(DispatchedEvents, CallTheirSlotsInOrder) {
  TarnPoller poller;
  std::string calls;
  Call read([&] { calls += 'r'; });
  Call write([&] { calls += 'w'; });
  Call error([&] { calls += 'e'; });
  poller.watch_read(7, read.function());
  poller.watch_write(7, write.function());
  poller.watch_error(7, error.function());

  poller.handle_event(7, GetParam().revents);

  EXPECT_EQ(calls, GetParam().calls);
}

INSTANTIATE_TEST_SUITE_P(
    Events, DispatchedEvents,
    ::testing::Values(Dispatch{0, ""}, Dispatch{POLLIN, "r"}, Dispatch{POLLPRI, "r"},
                      Dispatch{POLLIN | POLLPRI, "r"}, Dispatch{POLLOUT, "w"},
                      Dispatch{POLLIN | POLLOUT, "rw"}, Dispatch{POLLERR, "e"},
                      Dispatch{POLLNVAL, "e"}, Dispatch{POLLERR | POLLNVAL, "e"},
                      Dispatch{POLLHUP, "e"}, Dispatch{POLLHUP | POLLIN, "r"},
                      Dispatch{POLLHUP | POLLERR, "ee"}, Dispatch{POLLHUP | POLLNVAL, "ee"},
                      Dispatch{POLLHUP | POLLERR | POLLIN, "er"}, Dispatch{POLLHUP | POLLPRI, "er"},
                      Dispatch{POLLHUP | POLLOUT, "ew"},
                      Dispatch{POLLERR | POLLIN | POLLOUT, "erw"}));

TEST(TarnPollerHangUp, IgnoresEventsOfADescriptorItDoesNotKnow) {
  TarnPoller poller;

  poller.handle_event(7, POLLIN | POLLOUT | POLLERR | POLLHUP);

  EXPECT_FALSE(poller.poll(0));
}

TEST(TarnPollerHangUp, CallsNoSlotThatIsNotLive) {
  TarnPoller poller;
  Call read;
  poller.watch_read(7, read.function());

  poller.handle_event(7, POLLOUT | POLLERR | POLLHUP);

  EXPECT_EQ(read.count(), 0);
}

TEST(TarnPollerHangUp, SkipsTheSecondErrorCallWhenTheFirstUnwatched) {
  TarnPoller poller;
  Call error([&] { poller.unwatch_error(7); });
  poller.watch_error(7, error.function());

  poller.handle_event(7, POLLHUP | POLLERR);

  EXPECT_EQ(error.count(), 1);
}

TEST(TarnPollerHangUp, CallsTheErrorSlotOfASocketThatHungUp) {
  const OwnedFd fd = idle_tcp();
  TarnPoller poller;
  Call error;
  poller.watch_error(fd.get(), error.function());

  poller.poll(kLong);

  EXPECT_EQ(error.count(), 1);
}

TEST(TarnPollerHangUp, CallsOnlyTheReadSlotWhileDataIsLeft) {
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  const OwnedFd near(fds[0]);
  OwnedFd far(fds[1]);
  TarnPoller poller;
  Call read;
  Call error;
  poller.watch_read(near.get(), read.function());
  poller.watch_error(near.get(), error.function());
  tarn_test::send_text(far.get(), "last words");
  far.reset();

  poller.poll(kLong);

  EXPECT_EQ(read.count(), 1);
  EXPECT_EQ(error.count(), 0);
}

TEST(TarnPollerHangUp, CallsTheErrorSlotOfAResetConnection) {
  Ends ends = tarn_test::tcp_ends();
  TarnPoller poller;
  Call error;
  poller.watch_error(ends.near.get(), error.function());
  tarn_test::reset_connection(ends.far);

  poller.poll(kLong);

  EXPECT_GE(error.count(), 1);
}

TEST(TarnPollerHangUp, CallsTheErrorSlotOfAClosedDescriptor) {
  OwnedFd fd = tarn_test::udp_on_loopback();
  TarnPoller poller;
  Call error;
  poller.watch_error(fd.get(), error.function());
  fd.reset();

  poller.poll(kLong);

  EXPECT_EQ(error.count(), 1);
}

TEST(TarnPollerHangUp, DoesNotSpinOnAHangUpThatNobodyTakes) {
  const OwnedFd fd = idle_tcp();
  TarnPoller poller;
  Call read;
  poller.watch_read(fd.get(), read.function());

  EXPECT_LE(passes_within(poller, kShort), kFewPasses);

  EXPECT_EQ(read.count(), 0);
}

TEST(TarnPollerHangUp, DoesNotSpinOnAResetThatNobodyTakes) {
  Ends ends = tarn_test::tcp_ends();
  TarnPoller poller;
  Call call;
  poller.watch_write(ends.near.get(), call.function());
  poller.poll(kLong);
  poller.watch_write(ends.far.get(), call.function());
  poller.watch_read(ends.near.get(), call.function());
  poller.unwatch_read(ends.near.get());
  poller.watch_error(ends.near.get(), call.function());
  poller.unwatch_error(ends.near.get());
  tarn_test::reset_connection(ends.far);

  EXPECT_LE(passes_within(poller, kShort), kFewPasses);
}

TEST(TarnPollerHangUp, DoesNotSpinOnAClosedDescriptor) {
  OwnedFd fd = tarn_test::udp_on_loopback();
  TarnPoller poller;
  Call read;
  poller.watch_read(fd.get(), read.function());
  fd.reset();

  EXPECT_LE(passes_within(poller, kShort), kFewPasses);
}

TEST(TarnPollerHangUp, StillReadsAfterAnErrorThatNobodyTook) {
  Ends ends = tarn_test::udp_ends();
  const uint16_t port = tarn_test::port_of(ends.far.get());
  ends.far.reset();
  TarnPoller poller;
  Call read;
  poller.watch_read(ends.near.get(), read.function());
  tarn_test::send_text(ends.near.get(), "refused");
  EXPECT_LE(passes_within(poller, kShort), kFewPasses);

  TarnSocket again(TarnSocket::create_socket(TarnSocket::IPV4, TarnSocket::UDP), TarnSocket::UDP);
  ASSERT_TRUE(again.bind(port));
  tarn_test::send_text_to(again.fd(), tarn_test::port_of(ends.near.get()), "hello");

  EXPECT_TRUE(tarn_test::wait_until([&] { return poller.poll(kShort) && read.count() > 0; }));
  again.close();
}

#ifdef __linux__

// It is told until the queue of errors is read, which nobody does.
TEST(TarnPollerHangUp, DoesNotSpinOnAnErrorThatStays) {
  Ends ends = tarn_test::udp_ends();
  const int on = 1;
  ASSERT_EQ(setsockopt(ends.near.get(), IPPROTO_IP, IP_RECVERR, &on, sizeof on), 0);
  ends.far.reset();
  TarnPoller poller;
  Call read;
  poller.watch_read(ends.near.get(), read.function());
  tarn_test::send_text(ends.near.get(), "refused");

  EXPECT_LE(passes_within(poller, kShort), kFewPasses);

  EXPECT_EQ(read.count(), 0);
}

#endif

// Its event was another socket's, which an earlier callback of the pass closed.
TEST(TarnPollerHangUp, LeavesTheErrorOfTheNextSocketWithTheNumberAlone) {
  const Ends first = tarn_test::udp_ends();
  Ends closed = tarn_test::udp_ends();
  Ends next = tarn_test::udp_ends();
  TarnPoller poller;
  Call read;
  Call read_first([&] {
    poller.unwatch_read(closed.near.get());
    dup2(next.near.get(), closed.near.get());
  });
  poller.watch_read(first.near.get(), read_first.function());
  poller.watch_read(closed.near.get(), read.function());
  for (Ends* const each : {&closed, &next}) {
    each->far.reset();
    tarn_test::send_text(each->near.get(), "refused");
  }
  tarn_test::send_text(first.far.get(), "hello");

  poller.poll(kLong);

  EXPECT_EQ(read_first.count(), 1);
  EXPECT_EQ(pending_error(next.near.get()), ECONNREFUSED);
}

TEST(TarnPollerHangUp, TellsASlotThatIsWatchedDuringARestOnceThatIsOver) {
  const OwnedFd fd = idle_tcp();
  TarnPoller poller;
  Call read;
  Call error;
  poller.watch_read(fd.get(), read.function());
  poller.poll(0);

  poller.watch_error(fd.get(), error.function());

  EXPECT_TRUE(tarn_test::wait_until([&] { return poller.poll(kLong) && error.count() > 0; }));
}

TEST(TarnPollerHangUp, HearsAWatchMadeWhileItsOldEventIsBeingDispatched) {
  const Ends first = tarn_test::udp_ends();
  const OwnedFd second = idle_tcp();
  ASSERT_LT(first.near.get(), second.get());
  TarnPoller poller;
  Call read_second;
  Call write_first([&] {
    listen(second.get(), 4);
    poller.watch_read(second.get(), read_second.function());
  });
  poller.watch_write(first.near.get(), write_first.function());
  poller.watch_read(second.get(), read_second.function());

  poller.poll(kLong);  // the hang-up of `second` is older than its new watch
  const OwnedFd peer = tarn_test::connect_tcp(tarn_test::port_of(second.get()));

  EXPECT_TRUE(
      tarn_test::wait_until([&] { return poller.poll(kShort) && read_second.count() > 0; }));
}
