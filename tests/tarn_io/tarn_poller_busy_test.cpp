// TarnPoller with something to do in pass after pass: the same rules, whatever it waits with.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#ifdef __linux__
#include <sys/epoll.h>
#endif

#include "tarn_io/tarn_poller.h"
#include "tests/support/net_call.h"
#include "tests/support/net_sockets.h"
#include "tests/support/plain_socket.h"
#include "tests/support/signal_every.h"

using tarn_test::Call;
using tarn_test::Ends;
using tarn_test::OwnedFd;
using tarn_test::SignalEvery;

namespace {

constexpr unsigned int kLong = 5000;  // ms
// After more than so many the poller is busy.
constexpr int kBusyPasses = 70;
// More than pass between two looks at every descriptor, while there are three.
constexpr int kLookPasses = 100;

int64_t ms_since(std::chrono::steady_clock::time_point begun) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               begun)
      .count();
}

void keep(std::shared_ptr<int>) {}

#ifdef __linux__
// A set of the system's that always has something to tell.
struct ReadableSet {
  ReadableSet() : fd(epoll_create1(0)) {
    epoll_event event = {};
    event.events = EPOLLOUT;
    event.data.u64 = ~uint64_t{0};
    EXPECT_EQ(epoll_ctl(fd.get(), EPOLL_CTL_ADD, ends.near.get(), &event), 0);
  }
  const OwnedFd fd;
  const Ends ends = tarn_test::udp_ends();
};
#endif

// A poller that watches a socket of the test's besides one that has kept it busy.
class TarnPollerBusy : public testing::Test {
 protected:
  TarnPollerBusy() : before_(tarn_test::open_descriptors()) {
    poller_.watch_read(busy_.near.get(), read_busy_.function());
    poller_.watch_read(ends_.near.get(), read_.function());
    poller_.watch_error(ends_.near.get(), error_.function());
    tarn_test::send_text(busy_.far.get(), "hello");
  }

  void be_busy() {
    for (int pass = 0; pass < kBusyPasses; ++pass) poller_.poll(kLong);
    EXPECT_EQ(read_busy_.count(), kBusyPasses);
#ifdef __linux__
    EXPECT_EQ(tarn_test::open_descriptors(), before_ + 1) << "waits by poll() all the same";
#endif
  }
  // From now on the socket is silent.
  void read_busy() {
    char byte = 0;
    EXPECT_EQ(recv(busy_.near.get(), &byte, 1, 0), 1);
  }

  const Ends busy_ = tarn_test::udp_ends();
  Ends ends_ = tarn_test::udp_ends();
  const int before_;
  Call read_busy_;
  Call read_;
  Call error_;
  TarnPoller poller_;
};

}  // namespace

TEST_F(TarnPollerBusy, HearsWhatComesToAnotherDescriptor) {
  be_busy();
  tarn_test::send_text(ends_.far.get(), "hello");

  poller_.poll(kLong);

  EXPECT_EQ(read_.count(), 1);
}

TEST_F(TarnPollerBusy, RunsReadyDescriptorsInAscendingOrder) {
  int first = 0;
  const auto note = [&](int fd) { first = first == 0 ? fd : first; };
  Call busy([&] { note(busy_.near.get()); });
  Call other([&] { note(ends_.near.get()); });
  poller_.watch_read(busy_.near.get(), busy.function());
  poller_.watch_read(ends_.near.get(), other.function());
  for (int pass = 0; pass < kBusyPasses; ++pass) poller_.poll(kLong);
  first = 0;
  tarn_test::send_text(ends_.far.get(), "hello");

  poller_.poll(kLong);

  EXPECT_EQ(first, std::min(busy_.near.get(), ends_.near.get()));
  EXPECT_EQ(other.count(), 1);
}

TEST_F(TarnPollerBusy, TellsWriteReadinessOncePerWatch) {
  be_busy();
  Call write;
  poller_.watch_write(ends_.near.get(), write.function());

  for (int pass = 0; pass < 3; ++pass) poller_.poll(kLong);

  EXPECT_EQ(write.count(), 1);
}

TEST_F(TarnPollerBusy, DoesNotCallASlotThatWasUnwatched) {
  be_busy();
  poller_.unwatch_read(busy_.near.get());

  poller_.poll(0);

  EXPECT_EQ(read_busy_.count(), kBusyPasses);
}

TEST_F(TarnPollerBusy, RunsTheFunctionThatTookAnothersPlace) {
  be_busy();
  Call after;
  poller_.watch_read(busy_.near.get(), after.function());

  poller_.poll(kLong);

  EXPECT_EQ(read_busy_.count(), kBusyPasses);
  EXPECT_EQ(after.count(), 1);
}

TEST_F(TarnPollerBusy, WaitsForAsLongAsItIsToldWhenThingsGoQuiet) {
  be_busy();
  read_busy();
  const auto begun = std::chrono::steady_clock::now();

  EXPECT_TRUE(poller_.poll(150));

  EXPECT_GE(ms_since(begun), 150);
  EXPECT_EQ(read_busy_.count(), kBusyPasses);
}

TEST_F(TarnPollerBusy, WaitsNoLongerThanItIsToldWhenThingsGoQuiet) {
  int64_t shortest = kLong;
  for (int attempt = 0; attempt < 5 && shortest > 250; ++attempt) {
    tarn_test::send_text(busy_.far.get(), "hello");
    for (int pass = 0; pass < kBusyPasses; ++pass) poller_.poll(kLong);
    for (int read = 0; read < 2; ++read) recv(busy_.near.get(), nullptr, 0, MSG_DONTWAIT);
    const auto begun = std::chrono::steady_clock::now();
    poller_.poll(110);
    shortest = std::min(shortest, ms_since(begun));
  }

  EXPECT_LE(shortest, 250) << "other load may have held one wait up, but not all of them";
}

TEST_F(TarnPollerBusy, CallsTheErrorSlotOfAClosedDescriptorInTheWaitThatBecomesQuiet) {
  be_busy();
  read_busy();
  ends_.near.reset();
  const auto begun = std::chrono::steady_clock::now();

  poller_.poll(kLong);

  EXPECT_EQ(error_.count(), 1);
  EXPECT_LT(ms_since(begun), kLong);
}

TEST_F(TarnPollerBusy, CallsTheErrorSlotOfAClosedDescriptorWhileItIsBusy) {
  be_busy();
  ends_.near.reset();

  for (int pass = 0; pass < kLookPasses && error_.count() == 0; ++pass) poller_.poll(kLong);

  EXPECT_EQ(error_.count(), 1);
}

TEST_F(TarnPollerBusy, CallsTheErrorSlotOfAClosedDescriptorAfterASecondHoweverFewPasses) {
  be_busy();
  ends_.near.reset();
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // the clock may be a tick behind

  poller_.poll(kLong);

  EXPECT_EQ(error_.count(), 1);
}

TEST_F(TarnPollerBusy, EndsThePassWhenASignalComes) {
  be_busy();
  read_busy();
  const SignalEvery signal(std::chrono::milliseconds(1));
  const auto begun = std::chrono::steady_clock::now();

  EXPECT_TRUE(poller_.poll(kLong));

  EXPECT_LT(ms_since(begun), kLong);
#ifdef __linux__
  EXPECT_EQ(tarn_test::open_descriptors(), before_ + 1) << "went on waiting for silence";
#endif
}

TEST_F(TarnPollerBusy, HasNoDescriptorOfItsOwnInThePassAfterASignal) {
  be_busy();
  read_busy();
  {
    const SignalEvery signal(std::chrono::milliseconds(1));
    poller_.poll(kLong);
  }

  poller_.poll(0);

  EXPECT_EQ(tarn_test::open_descriptors(), before_);
}

TEST_F(TarnPollerBusy, HearsAnotherFileThatTakesTheDescriptorsPlace) {
  const Ends other = tarn_test::udp_ends();
  poller_.unwatch_error(ends_.near.get());
  for (int pass = 0; pass < kBusyPasses; ++pass) poller_.poll(kLong);
  tarn_test::send_text(other.far.get(), "hello");
  ASSERT_EQ(dup2(other.near.get(), ends_.near.get()), ends_.near.get());

  for (int pass = 0; pass < kLookPasses && read_.count() == 0; ++pass) poller_.poll(kLong);

  EXPECT_GE(read_.count(), 1);
}

TEST_F(TarnPollerBusy, HearsAWatchMadeByAnotherThreadDuringTheWait) {
  be_busy();
  read_busy();
  const Ends late = tarn_test::udp_ends();
  tarn_test::send_text(late.far.get(), "hello");
  Call read_late;
  Call woken;
  const Ends wake = tarn_test::udp_ends();
  Call waker([&] { tarn_test::send_text(wake.far.get(), "!"); });
  poller_.watch_read(wake.near.get(), woken.function());
  poller_.set_waker(waker.function());
  std::thread other([&] {
    usleep(20'000);
    poller_.watch_read(late.near.get(), read_late.function());
  });

  for (int pass = 0; pass < 3 && read_late.count() == 0; ++pass) poller_.poll(kLong);
  other.join();

  EXPECT_EQ(read_late.count(), 1);
}

TEST_F(TarnPollerBusy, HasNoDescriptorOfItsOwnOnceThingsAreQuiet) {
  be_busy();
  read_busy();

  poller_.poll(110);

  EXPECT_EQ(tarn_test::open_descriptors(), before_);
}

TEST_F(TarnPollerBusy, HasNoDescriptorOfItsOwnInALongLookThatFindsNothing) {
  be_busy();
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // a look is due
  read_busy();
  std::atomic<int> during{0};
  std::thread other([&] {
    usleep(700'000);
    during = tarn_test::open_descriptors();
  });

  poller_.poll(1500);
  other.join();

  EXPECT_EQ(during, before_);
}

TEST_F(TarnPollerBusy, LetsGoOfAFunctionThatIsUnwatchedBetweenTwoPasses) {
  const auto held = std::make_shared<int>();
  const Ends third = tarn_test::udp_ends();
  poller_.watch_read(third.near.get(), oxutils::Function(&keep, held));
  for (int pass = 0; pass < kBusyPasses; ++pass) poller_.poll(kLong);

  poller_.unwatch_read(third.near.get());

  EXPECT_EQ(held.use_count(), 1);
}

#ifdef __linux__

TEST_F(TarnPollerBusy, ForgetsASetThatACallbackHasClosedByPollingUntilItIsQuiet) {
  bool is_last = false;
  Call nested([&] {
    if (!is_last) return;
    read_busy();
    poller_.poll(110);
  });
  poller_.watch_read(busy_.near.get(), nested.function());
  for (int pass = 0; pass < kBusyPasses; ++pass) poller_.poll(kLong);
  is_last = true;
  poller_.poll(kLong);
  EXPECT_EQ(tarn_test::open_descriptors(), before_);
  // Another file has the number, with an event of its own in each pass.
  const ReadableSet other;
  tarn_test::send_text(ends_.far.get(), "hello");

  poller_.poll(kLong);

  EXPECT_EQ(read_.count(), 1);
}

#endif

TEST_F(TarnPollerBusy, HasNoDescriptorOfItsOwnInThePassAfterAChange) {
  be_busy();
  poller_.unwatch_read(ends_.near.get());

  poller_.poll(kLong);

  EXPECT_EQ(tarn_test::open_descriptors(), before_);
}
