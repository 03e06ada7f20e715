// TarnPoller: the wait by select.
#include <gtest/gtest.h>
#include <sys/select.h>

#include <chrono>
#include <string>

#include "tarn_io/tarn_poller.h"
#include "tests/support/log_capture.h"
#include "tests/support/net_call.h"
#include "tests/support/net_sockets.h"

using tarn_test::Call;
using tarn_test::Ends;
using tarn_test::LogCapture;
using tarn_test::OwnedFd;

namespace {

constexpr unsigned int kLong = 5000;  // ms

}  // namespace

TEST(TarnPollerSelect, SaysFalseAtOnceWhenNothingIsWatched) {
  TarnPoller poller;

  EXPECT_FALSE(poller.select(kLong));
}

TEST(TarnPollerSelect, CallsTheReadSlot) {
  const Ends ends = tarn_test::udp_ends();
  TarnPoller poller;
  Call read;
  poller.watch_read(ends.near.get(), read.function());
  tarn_test::send_text(ends.far.get(), "hello");

  EXPECT_TRUE(poller.select(kLong));

  EXPECT_EQ(read.count(), 1);
}

TEST(TarnPollerSelect, WaitsForTheMillisecondsGiven) {
  const Ends ends = tarn_test::udp_ends();
  TarnPoller poller;
  Call read;
  poller.watch_read(ends.near.get(), read.function());
  const auto begin = std::chrono::steady_clock::now();

  EXPECT_TRUE(poller.select(30));

  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(29));
  EXPECT_EQ(read.count(), 0);
}

TEST(TarnPollerSelect, TellsWriteReadinessOncePerWatch) {
  const Ends ends = tarn_test::udp_ends();
  TarnPoller poller;
  Call write;
  poller.watch_write(ends.near.get(), write.function());

  poller.select(kLong);
  poller.select(0);

  EXPECT_EQ(write.count(), 1);
}

TEST(TarnPollerSelect, LogsAFailure) {
  OwnedFd fd = tarn_test::udp_on_loopback();
  TarnPoller poller;
  Call read;
  poller.watch_read(fd.get(), read.function());
  fd.reset();
  const LogCapture log;

  EXPECT_FALSE(poller.select(0));

  EXPECT_EQ(log.count(1, "select ret -1"), 1);
}

TEST(TarnPollerSelect, DispatchesItsSetsInOrderOfDescriptorsAndSlots) {
  TarnPoller poller;
  std::string calls;
  Call read([&] { calls += 'r'; });
  Call write([&] { calls += 'w'; });
  Call error([&] { calls += 'e'; });
  Call low([&] { calls += 'l'; });
  poller.watch_error(9, error.function());
  poller.watch_write(9, write.function());
  poller.watch_read(9, read.function());
  poller.watch_read(8, low.function());
  fd_set all;
  FD_ZERO(&all);
  FD_SET(8, &all);
  FD_SET(9, &all);

  poller.handle_event(&all, &all, &all);

  EXPECT_EQ(calls, "lrwe");
}

TEST(TarnPollerSelect, KeepsDescriptorsWithoutLiveSlots) {
  TarnPoller poller;
  poller.unwatch_read(0);

  EXPECT_TRUE(poller.select(0));
  EXPECT_TRUE(poller.select(0));
}
