// PollList: one wait by poll() after another on the same descriptors.
#include "tarn_io/poll_list.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "tests/support/net_call.h"
#include "tests/support/net_sockets.h"
#include "tests/support/plain_socket.h"
#include "tests/support/signal_every.h"

using tarn_test::Call;
using tarn_test::Ends;

namespace {

constexpr int kLong = 5000;  // ms

// Two pairs of ends, `low` with the lower descriptor.
class PollListOfTwo : public testing::Test {
 protected:
  PollListOfTwo() {
    if (low_.near.get() > high_.near.get()) std::swap(low_, high_);
    list_.reserve(2);
    list_.add(low_.near.get(), POLLIN, 7, read_low_.function());
    list_.add(high_.near.get(), POLLIN | POLLOUT, 9, oxutils::Function());
  }

  std::vector<ReadyDescriptor> wait(int timeout) {
    std::vector<ReadyDescriptor> ready;
    EXPECT_EQ(list_.wait(timeout, memory_, ready), WaitOutcome::kReady);
    return ready;
  }

  Ends low_ = tarn_test::udp_ends();
  Ends high_ = tarn_test::udp_ends();
  Call read_low_;
  PollList list_;
  std::vector<pollfd> memory_;
};

}  // namespace

TEST_F(PollListOfTwo, TellsWhatIsReadyInAscendingOrderWithTheEventsAndTheWatch) {
  tarn_test::send_text(low_.far.get(), "hello");
  tarn_test::send_text(high_.far.get(), "hello");

  const auto ready = wait(kLong);

  ASSERT_EQ(ready.size(), 2u);
  EXPECT_EQ(ready[0].fd, low_.near.get());
  EXPECT_EQ(ready[0].revents, POLLIN);
  EXPECT_EQ(ready[0].generation, 7u);
  EXPECT_EQ(ready[1].fd, high_.near.get());
  EXPECT_EQ(ready[1].revents, POLLIN | POLLOUT);
  EXPECT_EQ(ready[1].generation, 9u);
}

TEST_F(PollListOfTwo, LeavesOutWhatIsNotReady) {
  const auto ready = wait(kLong);

  ASSERT_EQ(ready.size(), 1u);
  EXPECT_EQ(ready[0].fd, high_.near.get());
}

TEST_F(PollListOfTwo, TellsAgainInTheNextWait) {
  EXPECT_EQ(wait(kLong).size(), 1u);
  EXPECT_EQ(wait(kLong).size(), 1u);
}

TEST_F(PollListOfTwo, TellsOfAClosedDescriptor) {
  const int fd = low_.near.get();
  low_.near.reset();

  const auto ready = wait(kLong);

  ASSERT_EQ(ready.size(), 2u);
  EXPECT_EQ(ready[0].fd, fd);
  EXPECT_EQ(ready[0].revents, POLLNVAL);
}

TEST_F(PollListOfTwo, FindsTheFunctionForADescriptorsData) {
  const ReadyDescriptor ready{low_.near.get(), POLLIN, 7};
  const oxutils::Function* const f = list_.read_func(ready);
  ASSERT_NE(f, nullptr);

  (*f)();

  EXPECT_EQ(read_low_.count(), 1);
}

TEST_F(PollListOfTwo, FindsNoneForAnotherWatchOfTheSameNumber) {
  EXPECT_EQ(list_.read_func({low_.near.get(), POLLIN, 8}), nullptr);
}

TEST_F(PollListOfTwo, FindsNoneWhereNobodyReads) {
  EXPECT_EQ(list_.read_func({high_.near.get(), POLLIN, 9}), nullptr);
}

TEST_F(PollListOfTwo, FindsNoneForADescriptorThatIsNotInIt) {
  EXPECT_EQ(list_.read_func({low_.near.get() - 1, POLLIN, 7}), nullptr);
  EXPECT_EQ(list_.read_func({high_.near.get() + 1, POLLIN, 9}), nullptr);
}

TEST_F(PollListOfTwo, IsOutdatedOnceItHasBeenCalledSo) {
  EXPECT_FALSE(list_.is_outdated());
  list_.outdate();
  EXPECT_TRUE(list_.is_outdated());
}

TEST(PollList, SleepsWhenItIsEmpty) {
  const PollList list;
  std::vector<pollfd> memory;
  std::vector<ReadyDescriptor> ready;
  const auto begun = std::chrono::steady_clock::now();

  EXPECT_EQ(list.wait(30, memory, ready), WaitOutcome::kNothing);

  EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(30));
  EXPECT_TRUE(ready.empty());
}

TEST(PollList, TellsASignalFromSilence) {
  const Ends ends = tarn_test::udp_ends();
  PollList list;
  list.add(ends.near.get(), POLLIN, 1, oxutils::Function());
  std::vector<pollfd> memory;
  std::vector<ReadyDescriptor> ready;
  const tarn_test::SignalEvery signal(std::chrono::milliseconds(1));

  EXPECT_EQ(list.wait(kLong, memory, ready), WaitOutcome::kInterrupted);
  EXPECT_TRUE(ready.empty());
}

TEST(PollList, PausesWhenTheSystemRefusesTheWait) {
  const Ends ends = tarn_test::udp_ends();
  PollList list;
  list.add(ends.near.get(), POLLOUT, 1, oxutils::Function());
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none = {0, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  std::vector<pollfd> memory;
  std::vector<ReadyDescriptor> ready;
  const auto begun = std::chrono::steady_clock::now();

  const WaitOutcome outcome = list.wait(kLong, memory, ready);
  const auto taken = std::chrono::steady_clock::now() - begun;
  setrlimit(RLIMIT_NOFILE, &before);

  EXPECT_EQ(outcome, WaitOutcome::kFailed);
  EXPECT_TRUE(ready.empty());
  EXPECT_GE(taken, std::chrono::milliseconds(20));
  EXPECT_LT(taken, std::chrono::milliseconds(kLong));
}
