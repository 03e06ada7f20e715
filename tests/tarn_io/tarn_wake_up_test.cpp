// TarnWakeUp: the pair of sockets that interrupts a wait.
#include "tarn_io/tarn_wake_up.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "tarn_io/tarn_poller.h"
#include "tests/support/log_capture.h"
#include "tests/support/net_namespace.h"
#include "tests/support/net_sockets.h"

using tarn_test::LogCapture;
using tarn_test::NetNamespace;

namespace {

constexpr unsigned int kLong = 5000;  // ms

// Nothing else polls: the I/O thread is not started here.
TarnPoller& poller() { return *TarnPoller::instance(); }

// The connected sockets of this process.
template <typename Fn>
void for_each_socket(Fn code) {
  constexpr int kHighest = 256;
  for (int fd = 3; fd < kHighest; ++fd) {
    sockaddr_storage peer;
    socklen_t size = sizeof peer;
    void* const address = &peer;
    if (getpeername(fd, static_cast<sockaddr*>(address), &size) == 0) code(fd);
  }
}

void shrink(int fd) {
  const int smallest = 1;
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest);
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &smallest, sizeof smallest);
}

}  // namespace

TEST(TarnWakeUp, FailsToWakeWithoutAConnection) {
  TarnWakeUp wake_up;

  EXPECT_EQ(wake_up.wakeup(), -1);
}

TEST(TarnWakeUp, SendsOneByteThatInterruptsAWait) {
  const LogCapture log;
  TarnWakeUp wake_up;
  ASSERT_TRUE(wake_up.init());

  EXPECT_EQ(wake_up.wakeup(), 1);

  EXPECT_TRUE(poller().poll(kLong));
  EXPECT_EQ(log.count_containing("wake up"), 0);
  EXPECT_EQ(log.count_containing("recv error"), 0);
  wake_up.fini();
}

TEST(TarnWakeUp, NeverBlocksItsSender) {
  TarnWakeUp wake_up;
  ASSERT_TRUE(wake_up.init());
  for_each_socket(shrink);
  int result = 1;

  for (int i = 0; i < 10'000'000 && result == 1; ++i) result = wake_up.wakeup();

  EXPECT_EQ(result, -1);
  wake_up.fini();
}

TEST(TarnWakeUp, StopsWatchingWhenFinished) {
  TarnWakeUp wake_up;
  ASSERT_TRUE(wake_up.init());

  wake_up.fini();

  EXPECT_TRUE(poller().poll(0));
  EXPECT_FALSE(poller().poll(0));
  EXPECT_EQ(wake_up.wakeup(), -1);
}

TEST(TarnWakeUp, CanBeFinishedTwice) {
  TarnWakeUp wake_up;
  ASSERT_TRUE(wake_up.init());

  wake_up.fini();
  wake_up.fini();

  EXPECT_EQ(wake_up.wakeup(), -1);
}

TEST(TarnWakeUp, StaysAsItIsWhenNoByteIsThere) {
  TarnWakeUp wake_up;
  ASSERT_TRUE(wake_up.init());
  const LogCapture log;

  wake_up.on_read();

  EXPECT_EQ(log.count_containing("recv error"), 0);
  wake_up.fini();
}

TEST(TarnWakeUp, IsBuiltAnewWhenTheConnectionIsGone) {
  TarnWakeUp wake_up;
  ASSERT_TRUE(wake_up.init());
  for_each_socket([](int fd) { shutdown(fd, SHUT_RDWR); });
  const LogCapture log;

  wake_up.on_read();

  EXPECT_EQ(log.count(1, "TarnWakeUp recv error"), 1);
  EXPECT_EQ(wake_up.wakeup(), 1);
  EXPECT_TRUE(poller().poll(kLong));
  EXPECT_EQ(log.count(1, "TarnWakeUp recv error"), 1);
  wake_up.fini();
}

TEST(TarnWakeUp, LogsAConnectionThatItCannotBind) {
  const NetNamespace net;
  TARN_REQUIRE_NAMESPACE(net);
  ASSERT_TRUE(net.ip("addr flush dev lo"));
  ASSERT_TRUE(net.ip("link set lo down"));
  const LogCapture log;
  TarnWakeUp wake_up;

  EXPECT_FALSE(wake_up.init());

  EXPECT_EQ(log.count(1, "wake up init fail -- on bind"), 1);
}
