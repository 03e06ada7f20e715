// EpollSet: what the kernel watches, and what it refuses.
#include "tarn_io/epoll_set.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "tests/support/net_sockets.h"
#include "tests/support/signal_every.h"

#ifdef __linux__

using tarn_test::Ends;
using tarn_test::OwnedFd;

namespace {

constexpr int kLong = 5000;  // ms

class EpollSetOpen : public testing::Test {
 protected:
  EpollSetOpen() {
    set_.open();
    tarn_test::send_text(ends_.far.get(), "hello");
  }

  WaitOutcome wait(int timeout) {
    ready_.clear();
    return EpollSet::wait(set_.fd(), timeout, ready_);
  }

  Ends ends_ = tarn_test::udp_ends();  // with something to read at `near`
  EpollSet set_;
  std::vector<ReadyDescriptor> ready_;
};

}  // namespace

TEST_F(EpollSetOpen, TellsTheEventsAndTheWatchOfWhatIsReady) {
  set_.watch(ends_.near.get(), POLLIN, 7);

  EXPECT_EQ(wait(kLong), WaitOutcome::kReady);

  ASSERT_EQ(ready_.size(), 1u);
  EXPECT_EQ(ready_[0].fd, ends_.near.get());
  EXPECT_EQ(ready_[0].revents, POLLIN);
  EXPECT_EQ(ready_[0].generation, 7u);
}

TEST_F(EpollSetOpen, TellsInAscendingOrderOfDescriptors) {
  const Ends second = tarn_test::udp_ends();
  const Ends third = tarn_test::udp_ends();
  std::vector<int> fds = {third.near.get(), ends_.near.get(), second.near.get()};
  for (const int fd : fds) set_.watch(fd, POLLOUT, 1);
  std::sort(fds.begin(), fds.end());

  EXPECT_EQ(wait(kLong), WaitOutcome::kReady);

  ASSERT_EQ(ready_.size(), 3u);
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(ready_[i].fd, fds[i]);
}

TEST_F(EpollSetOpen, WatchesForOtherEventsOfAnotherWatchOnceItIsTold) {
  set_.watch(ends_.near.get(), POLLIN, 7);
  set_.watch(ends_.near.get(), POLLOUT, 8);

  EXPECT_EQ(wait(kLong), WaitOutcome::kReady);

  ASSERT_EQ(ready_.size(), 1u);
  EXPECT_EQ(ready_[0].revents, POLLOUT);
  EXPECT_EQ(ready_[0].generation, 8u);
}

TEST_F(EpollSetOpen, DoesNotWatchWithoutEvents) {
  set_.watch(ends_.near.get(), POLLIN, 7);
  set_.watch(ends_.near.get(), 0, 7);

  EXPECT_EQ(wait(0), WaitOutcome::kNothing);
  EXPECT_TRUE(ready_.empty());
  EXPECT_FALSE(set_.has_failed());
}

TEST_F(EpollSetOpen, TakesAnEndOfWhatItDoesNotWatch) {
  set_.watch(ends_.near.get(), 0, 7);

  EXPECT_FALSE(set_.has_failed());
}

TEST_F(EpollSetOpen, KnowsTheHighestDescriptorByItsNumber) {
  const OwnedFd next(fcntl(ends_.near.get(), F_DUPFD, 100));
  const OwnedFd after(fcntl(ends_.near.get(), F_DUPFD, next.get() + 1));
  ASSERT_EQ(after.get(), next.get() + 1);
  for (int round = 0; round < 2; ++round) {
    set_.watch(next.get(), POLLIN, 1);
    set_.watch(after.get(), POLLIN, 1);
  }

  EXPECT_FALSE(set_.has_failed());
}

TEST_F(EpollSetOpen, WatchesAgain) {
  set_.watch(ends_.near.get(), POLLIN, 7);
  set_.watch(ends_.near.get(), 0, 7);
  set_.watch(ends_.near.get(), POLLIN, 8);

  EXPECT_EQ(wait(kLong), WaitOutcome::kReady);
  EXPECT_FALSE(set_.has_failed());
}

TEST_F(EpollSetOpen, FailsWhenTheDescriptorIsNone) {
  set_.watch(-1, POLLIN, 7);

  EXPECT_TRUE(set_.has_failed());
}

TEST_F(EpollSetOpen, FailsWhenADescriptorThatItWatchesHasBeenClosed) {
  set_.watch(ends_.near.get(), POLLIN, 7);
  const int fd = ends_.near.get();
  ends_.near.reset();

  set_.watch(fd, 0, 7);

  EXPECT_TRUE(set_.has_failed());
}

TEST_F(EpollSetOpen, FailsWhenAnotherFileHasTheNumberOfWhatItWatches) {
  const Ends other = tarn_test::udp_ends();
  set_.watch(ends_.near.get(), POLLIN, 7);
  ASSERT_EQ(dup2(other.near.get(), ends_.near.get()), ends_.near.get());

  set_.watch(ends_.near.get(), POLLIN, 8);

  EXPECT_TRUE(set_.has_failed());
}

TEST_F(EpollSetOpen, BeginsAnewWhenItIsOpenedAgain) {
  set_.watch(ends_.near.get(), POLLIN, 7);
  set_.note_failure();

  set_.open();

  EXPECT_FALSE(set_.has_failed());
  EXPECT_EQ(wait(0), WaitOutcome::kNothing);
  set_.watch(ends_.near.get(), POLLIN, 8);
  EXPECT_EQ(wait(kLong), WaitOutcome::kReady);
}

TEST_F(EpollSetOpen, GivesItsDescriptorBackWhenItIsClosed) {
  const int fd = set_.fd();

  set_.close();

  EXPECT_FALSE(set_.is_open());
  EXPECT_FALSE(tarn_test::is_open(fd));
}

TEST_F(EpollSetOpen, TellsAThousandAtOnceAndTheRestLater) {
  std::vector<OwnedFd> ends;
  for (int i = 0; i < 501; ++i) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ends.emplace_back(fds[0]);
    ends.emplace_back(fds[1]);
    set_.watch(fds[1], POLLOUT, 1);
    set_.watch(fds[0], POLLIN, 1);
    ASSERT_EQ(write(fds[1], "x", 1), 1);
  }
  ASSERT_FALSE(set_.has_failed());

  EXPECT_EQ(wait(kLong), WaitOutcome::kReady);

  EXPECT_EQ(ready_.size(), 1000u);
}

TEST_F(EpollSetOpen, TellsASignalFromSilence) {
  const tarn_test::SignalEvery signal(std::chrono::milliseconds(1));

  EXPECT_EQ(wait(kLong), WaitOutcome::kInterrupted);
}

TEST(EpollSet, CannotWaitOnWhatIsNoSet) {
  const Ends ends = tarn_test::udp_ends();
  std::vector<ReadyDescriptor> ready;

  EXPECT_EQ(EpollSet::wait(ends.near.get(), 0, ready), WaitOutcome::kFailed);
  EXPECT_TRUE(ready.empty());
}

#endif
