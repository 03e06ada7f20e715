// TarnPoller: pauses, the waker, and descriptors that a set of select() cannot hold.
#include <gtest/gtest.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "tarn_io/tarn_poller.h"
#include "tests/support/net_call.h"
#include "tests/support/net_sockets.h"

using tarn_test::Call;
using tarn_test::Ends;

namespace {

constexpr unsigned int kLong = 5000;  // ms
constexpr int kForAges = 600'000;     // ms

// A descriptor with something to read, watched.
struct Readable {
  Readable() {
    poller.watch_read(fd, read.function());
    tarn_test::send_text(ends.far.get(), "hello");
  }
  const Ends ends = tarn_test::udp_ends();
  const int fd = ends.near.get();
  TarnPoller poller;
  Call read;
};

}  // namespace

TEST(TarnPollerPause, KeepsADescriptorOutOfThePass) {
  Readable readable;
  readable.poller.pause(readable.fd, kForAges);

  EXPECT_TRUE(readable.poller.poll(1));

  EXPECT_EQ(readable.read.count(), 0);
}

TEST(TarnPollerPause, EndsByItself) {
  Readable readable;
  readable.poller.pause(readable.fd, 20);

  // Each pass waits for what is left of the pause at most.
  const auto begun = std::chrono::steady_clock::now();
  for (int pass = 0; pass < 1000 && readable.read.count() == 0; ++pass) readable.poller.poll(kLong);

  EXPECT_EQ(readable.read.count(), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(kLong));
}

TEST(TarnPollerPause, EndsWhenItIsResumed) {
  Readable readable;
  readable.poller.pause(readable.fd, kForAges);
  readable.poller.resume(readable.fd);

  readable.poller.poll(kLong);

  EXPECT_EQ(readable.read.count(), 1);
}

TEST(TarnPollerPause, EndsTheWaitOfAnotherThreadWhenItIsResumed) {
  Readable readable;
  const Ends wake = tarn_test::udp_ends();
  Call woken([&] { tarn_test::receive_text(wake.near.get()); });
  Call waker([&] { tarn_test::send_text(wake.far.get(), "!"); });
  readable.poller.watch_read(wake.near.get(), woken.function());
  readable.poller.set_waker(waker.function());
  readable.poller.pause(readable.fd, kForAges);
  readable.poller.poll(0);
  const auto begun = std::chrono::steady_clock::now();
  std::thread other([&] {
    usleep(20'000);
    readable.poller.resume(readable.fd);
  });

  for (int pass = 0; pass < 5 && readable.read.count() == 0; ++pass) readable.poller.poll(kLong);
  other.join();

  EXPECT_EQ(readable.read.count(), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(kLong));
}

TEST(TarnPollerPause, GoesOnWhenTheSlotIsWatchedAgain) {
  Readable readable;
  readable.poller.pause(readable.fd, kForAges);
  readable.poller.watch_read(readable.fd, readable.read.function());

  readable.poller.poll(1);

  EXPECT_EQ(readable.read.count(), 0);
}

TEST(TarnPollerPause, EndsWhenEverythingIsUnwatched) {
  Readable readable;
  readable.poller.pause(readable.fd, kForAges);
  readable.poller.unwatch_read(readable.fd);
  readable.poller.watch_read(readable.fd, readable.read.function());

  readable.poller.poll(kLong);

  EXPECT_EQ(readable.read.count(), 1);
}

TEST(TarnPollerPause, OfADescriptorThatNobodyWatchesIsNotRemembered) {
  const Ends ends = tarn_test::udp_ends();
  TarnPoller poller;
  Call read;
  tarn_test::send_text(ends.far.get(), "hello");

  poller.pause(ends.near.get(), kForAges);
  poller.resume(ends.near.get());
  EXPECT_FALSE(poller.poll(kLong)) << "nothing is watched";
  poller.pause(ends.near.get(), kForAges);
  poller.watch_read(ends.near.get(), read.function());
  poller.poll(kLong);

  EXPECT_EQ(read.count(), 1);
}

TEST(TarnPollerWaker, IsTheFirstOneSet) {
  TarnPoller poller;
  Call first;
  Call second;
  poller.set_waker(first.function());
  poller.set_waker(second.function());

  poller.unwatch_read(1);

  EXPECT_EQ(first.count(), 1);
  EXPECT_EQ(second.count(), 0);
}

TEST(TarnPollerWaker, IsTakenBackOnlyByItsOwner) {
  TarnPoller poller;
  Call call;
  Call other;
  const oxutils::Function waker = call.function();
  poller.set_waker(waker);

  poller.reset_waker(other.function());
  poller.unwatch_read(1);
  EXPECT_EQ(call.count(), 1);

  poller.reset_waker(waker);
  poller.unwatch_read(1);
  EXPECT_EQ(call.count(), 1);
}

TEST(TarnPollerWaker, IsNotCalledByThePollingThreadItself) {
  Readable readable;
  Call waker;
  readable.poller.poll(kLong);
  readable.poller.set_waker(waker.function());

  readable.poller.unwatch_read(readable.fd);

  EXPECT_EQ(waker.count(), 0);
}

TEST(TarnPollerSelectRange, LeavesOutWhatASetCannotHold) {
  Readable readable;
  Call never;
  readable.poller.watch_read(-1, never.function());
  readable.poller.watch_read(FD_SETSIZE, never.function());

  EXPECT_TRUE(readable.poller.select(kLong));

  EXPECT_EQ(readable.read.count(), 1);
  EXPECT_EQ(never.count(), 0);
}

TEST(TarnPollerSelectRange, TellsUrgentDataToTheErrorSlot) {
  const Ends ends = tarn_test::tcp_ends();
  TarnPoller poller;
  Call error;
  poller.watch_error(ends.near.get(), error.function());
  ASSERT_EQ(send(ends.far.get(), "!", 1, MSG_OOB), 1);

  EXPECT_TRUE(poller.select(kLong));

  EXPECT_EQ(error.count(), 1);
}
