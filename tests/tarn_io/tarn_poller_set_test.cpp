// TarnPoller while it waits on the kernel's set, and between that and the looks at every
// descriptor.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

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
// The first one is a look.
constexpr int kPasses = 3;
// ms; a look is due a second after the last one, and the clock may be a tick behind.
constexpr int kLookPeriod = 1100;

int64_t ms_since(std::chrono::steady_clock::time_point begun) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               begun)
      .count();
}

void keep(std::shared_ptr<int>) {}

// What a function is bound to, and does.
struct Load {
  std::function<void()> code;
};
void run_load(std::shared_ptr<Load> load) { load->code(); }

// A poller that watches a socket of the test's besides one that always has something to tell.
class TarnPollerSet : public testing::Test {
 protected:
  TarnPollerSet() : before_(tarn_test::open_descriptors()) {
    poller_.watch_read(busy_.near.get(), read_busy_.function());
    poller_.watch_read(ends_.near.get(), read_.function());
    poller_.watch_error(ends_.near.get(), error_.function());
    tarn_test::send_text(busy_.far.get(), "hello");
  }

  void be_busy() {
    for (int pass = 0; pass < kPasses; ++pass) poller_.poll(kLong);
    EXPECT_EQ(read_busy_.count(), kPasses);
#ifdef __linux__
    EXPECT_EQ(tarn_test::open_descriptors(), before_ + 1) << "waits by poll() all the same";
#endif
  }
  // Passes without end, but for the look.
  void pass_until(const Call& call) {
    const auto begun = std::chrono::steady_clock::now();
    while (call.count() == 0 && ms_since(begun) < kLookPeriod) poller_.poll(kLong);
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

TEST_F(TarnPollerSet, HearsWhatComesToAnotherDescriptor) {
  be_busy();
  tarn_test::send_text(ends_.far.get(), "hello");

  poller_.poll(kLong);

  EXPECT_EQ(read_.count(), 1);
}

TEST_F(TarnPollerSet, RunsReadyDescriptorsInAscendingOrder) {
  int first = 0;
  const auto note = [&](int fd) { first = first == 0 ? fd : first; };
  Call busy([&] { note(busy_.near.get()); });
  Call other([&] { note(ends_.near.get()); });
  poller_.watch_read(busy_.near.get(), busy.function());
  poller_.watch_read(ends_.near.get(), other.function());
  for (int pass = 0; pass < kPasses; ++pass) poller_.poll(kLong);
  first = 0;
  tarn_test::send_text(ends_.far.get(), "hello");

  poller_.poll(kLong);

  EXPECT_EQ(first, std::min(busy_.near.get(), ends_.near.get()));
  EXPECT_EQ(other.count(), 1);
}

TEST_F(TarnPollerSet, TellsWriteReadinessOncePerWatch) {
  be_busy();
  Call write;
  poller_.watch_write(ends_.near.get(), write.function());

  for (int pass = 0; pass < 3; ++pass) poller_.poll(kLong);

  EXPECT_EQ(write.count(), 1);
}

TEST_F(TarnPollerSet, DoesNotCallASlotThatWasUnwatched) {
  be_busy();
  poller_.unwatch_read(busy_.near.get());

  poller_.poll(0);

  EXPECT_EQ(read_busy_.count(), kPasses);
}

TEST_F(TarnPollerSet, RunsTheFunctionThatTookAnothersPlace) {
  be_busy();
  Call after;
  poller_.watch_read(busy_.near.get(), after.function());

  poller_.poll(kLong);

  EXPECT_EQ(read_busy_.count(), kPasses);
  EXPECT_EQ(after.count(), 1);
}

TEST_F(TarnPollerSet, WaitsForAsLongAsItIsToldInTwoWaits) {
  be_busy();
  read_busy();
  rusage before = {};
  rusage after = {};
  const auto begun = std::chrono::steady_clock::now();

  getrusage(RUSAGE_THREAD, &before);
  EXPECT_TRUE(poller_.poll(2200));
  getrusage(RUSAGE_THREAD, &after);

  EXPECT_GE(ms_since(begun), 2200);
  EXPECT_EQ(read_busy_.count(), kPasses);
  EXPECT_LE(after.ru_nvcsw - before.ru_nvcsw, 2) << "a quiet process does not wake every second";
}

TEST_F(TarnPollerSet, WaitsNoLongerThanItIsToldWhenThingsGoQuiet) {
  int64_t shortest = kLong;
  for (int attempt = 0; attempt < 5 && shortest > 250; ++attempt) {
    tarn_test::send_text(busy_.far.get(), "hello");
    for (int pass = 0; pass < kPasses; ++pass) poller_.poll(kLong);
    for (int read = 0; read < 2; ++read) recv(busy_.near.get(), nullptr, 0, MSG_DONTWAIT);
    const auto begun = std::chrono::steady_clock::now();
    poller_.poll(110);
    shortest = std::min(shortest, ms_since(begun));
  }

  EXPECT_LE(shortest, 250) << "other load may have held one wait up, but not all of them";
}

TEST_F(TarnPollerSet, CallsTheErrorSlotOfAClosedDescriptorInTheWaitThatBecomesQuiet) {
  be_busy();
  read_busy();
  ends_.near.reset();
  const auto begun = std::chrono::steady_clock::now();

  poller_.poll(kLong);

  EXPECT_EQ(error_.count(), 1);
  EXPECT_LT(ms_since(begun), 2 * kLookPeriod);
}

TEST_F(TarnPollerSet, CallsTheErrorSlotOfAClosedDescriptorWhileItIsBusy) {
  be_busy();
  ends_.near.reset();

  pass_until(error_);

  EXPECT_EQ(error_.count(), 1);
}

TEST_F(TarnPollerSet, CallsTheErrorSlotOfAClosedDescriptorAfterASecondHoweverFewPasses) {
  be_busy();
  ends_.near.reset();
  std::this_thread::sleep_for(std::chrono::milliseconds(kLookPeriod));

  poller_.poll(kLong);

  EXPECT_EQ(error_.count(), 1);
}

TEST_F(TarnPollerSet, EndsThePassWhenASignalComes) {
  be_busy();
  read_busy();
  const SignalEvery signal(std::chrono::milliseconds(1));
  const auto begun = std::chrono::steady_clock::now();

  EXPECT_TRUE(poller_.poll(kLong));

  EXPECT_LT(ms_since(begun), kLong);
}

TEST_F(TarnPollerSet, HearsAnotherFileThatTakesTheDescriptorsPlace) {
  const Ends other = tarn_test::udp_ends();
  poller_.unwatch_error(ends_.near.get());
  for (int pass = 0; pass < kPasses; ++pass) poller_.poll(kLong);
  tarn_test::send_text(other.far.get(), "hello");
  ASSERT_EQ(dup2(other.near.get(), ends_.near.get()), ends_.near.get());

  pass_until(read_);

  EXPECT_GE(read_.count(), 1);
}

TEST_F(TarnPollerSet, HearsAWatchMadeByAnotherThreadDuringTheWait) {
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

TEST_F(TarnPollerSet, LetsGoOfAFunctionThatIsUnwatchedBetweenTwoPasses) {
  const auto held = std::make_shared<int>();
  const Ends third = tarn_test::udp_ends();
  poller_.watch_read(third.near.get(), oxutils::Function(&keep, held));
  for (int pass = 0; pass < kPasses; ++pass) poller_.poll(kLong);

  poller_.unwatch_read(third.near.get());

  EXPECT_EQ(held.use_count(), 1);
}

TEST_F(TarnPollerSet, KeepsAFunctionThatAnotherThreadUnwatchesWhileItRuns) {
  const auto load = std::make_shared<Load>();
  long holders = 0;
  load->code = [&] {
    std::thread([&] { poller_.unwatch_read(busy_.near.get()); }).join();
    holders = load.use_count();
  };
  poller_.watch_read(busy_.near.get(), oxutils::Function(&run_load, load));

  poller_.poll(kLong);

  EXPECT_EQ(holders, 3) << "the test, the function, and its argument";
  EXPECT_EQ(load.use_count(), 1);
}

TEST_F(TarnPollerSet, LetsGoOfAFunctionThatAnotherThreadReplacesBetweenTwoPasses) {
  const auto load = std::make_shared<Load>();
  poller_.watch_read(ends_.near.get(), oxutils::Function(&run_load, load));
  be_busy();

  std::thread([&] { poller_.watch_read(ends_.near.get(), read_.function()); }).join();

  EXPECT_EQ(load.use_count(), 1);
}

// A function that has run stays until the one that it runs in has returned, too.
TEST_F(TarnPollerSet, KeepsAFunctionThatPollsFromWithinAndIsReplacedThere) {
  const auto load = std::make_shared<Load>();
  long holders = 0;
  load->code = [&] {
    poller_.watch_read(busy_.near.get(), read_busy_.function());
    poller_.poll(kLong);
    holders = load.use_count();
  };
  poller_.watch_read(busy_.near.get(), oxutils::Function(&run_load, load));

  poller_.poll(kLong);

  EXPECT_EQ(read_busy_.count(), 1);
  EXPECT_EQ(holders, 3);
  EXPECT_EQ(load.use_count(), 1);
}

// With neither a set nor a wait by poll() to be had.
TEST_F(TarnPollerSet, PausesWhenTheSystemRefusesEveryWait) {
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none = {0, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const auto begun = std::chrono::steady_clock::now();

  const bool is_watching = poller_.poll(kLong);
  const int64_t ms = ms_since(begun);
  setrlimit(RLIMIT_NOFILE, &before);

  EXPECT_TRUE(is_watching);
  EXPECT_EQ(read_busy_.count(), 0);
  EXPECT_GE(ms, 20);
  EXPECT_LT(ms, kLong);
}

namespace {

// The same with a file among what is watched: the kernel's sets refuse those. Nothing happens to
// it.
class TarnPollerWithoutSet : public TarnPollerSet {
 protected:
  TarnPollerWithoutSet() { poller_.watch_error(file_.get(), error_.function()); }

  const OwnedFd file_{open("/proc/self/exe", O_RDONLY)};
};

}  // namespace

TEST_F(TarnPollerWithoutSet, ReadsWhatComes) {
  for (int pass = 0; pass < kPasses; ++pass) poller_.poll(kLong);
  EXPECT_EQ(read_busy_.count(), kPasses);
  read_busy();
  tarn_test::send_text(ends_.far.get(), "hello");

  poller_.poll(kLong);

  EXPECT_EQ(read_busy_.count(), kPasses);
  EXPECT_EQ(read_.count(), 1);
}

TEST_F(TarnPollerWithoutSet, EndsThePassWhenASignalComes) {
  read_busy();
  const SignalEvery signal(std::chrono::milliseconds(1));
  const auto begun = std::chrono::steady_clock::now();

  EXPECT_TRUE(poller_.poll(kLong));

  EXPECT_LT(ms_since(begun), kLong);
}

TEST_F(TarnPollerWithoutSet, TellsOfAClosedDescriptorAtOnce) {
  read_busy();
  poller_.poll(0);
  ends_.near.reset();

  poller_.poll(0);

  EXPECT_EQ(error_.count(), 1);
}
