// EpollSet: what the kernel watches, and what it refuses.
#include "tarn_io/epoll_set.h"

#include <errno.h>
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

  int wait(int timeout) { return EpollSet::wait(set_.fd(), timeout, ready_); }

  Ends ends_ = tarn_test::udp_ends();  // with something to read at `near`
  const int fd_ = ends_.near.get();
  EpollSet set_;
  EpollSet::Ready ready_;
};

}  // namespace

TEST_F(EpollSetOpen, TellsTheEventsAndTheWatchOfWhatIsReady) {
  EXPECT_TRUE(set_.change(fd_, 0, POLLIN, 7));

  ASSERT_EQ(wait(kLong), 1);

  EXPECT_EQ(ready_[0].fd, fd_);
  EXPECT_EQ(ready_[0].revents, POLLIN);
  EXPECT_EQ(ready_[0].generation, 7u);
}

TEST_F(EpollSetOpen, TellsInAscendingOrderOfDescriptors) {
  const Ends second = tarn_test::udp_ends();
  const Ends third = tarn_test::udp_ends();
  std::vector<int> fds = {third.near.get(), fd_, second.near.get()};
  for (const int fd : fds) EXPECT_TRUE(set_.change(fd, 0, POLLOUT, 1));
  std::sort(fds.begin(), fds.end());

  ASSERT_EQ(wait(kLong), 3);

  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(ready_[i].fd, fds[i]);
}

TEST_F(EpollSetOpen, WatchesForOtherEventsOfAnotherWatchOnceItIsTold) {
  EXPECT_TRUE(set_.change(fd_, 0, POLLIN, 7));
  EXPECT_TRUE(set_.change(fd_, POLLIN, POLLOUT, 8));

  ASSERT_EQ(wait(kLong), 1);

  EXPECT_EQ(ready_[0].revents, POLLOUT);
  EXPECT_EQ(ready_[0].generation, 8u);
}

TEST_F(EpollSetOpen, WatchesNoMoreOnceItIsTold) {
  EXPECT_TRUE(set_.change(fd_, 0, POLLIN, 7));
  EXPECT_TRUE(set_.change(fd_, POLLIN, 0, 7));

  EXPECT_EQ(wait(0), 0);
}

TEST_F(EpollSetOpen, WatchesAgain) {
  EXPECT_TRUE(set_.change(fd_, 0, POLLIN, 7));
  EXPECT_TRUE(set_.change(fd_, POLLIN, 0, 7));
  EXPECT_TRUE(set_.change(fd_, 0, POLLIN, 8));

  ASSERT_EQ(wait(kLong), 1);

  EXPECT_EQ(ready_[0].generation, 8u);
}

TEST_F(EpollSetOpen, TakesAnEndOfWhatItDoesNotWatch) { EXPECT_TRUE(set_.change(fd_, 0, 0, 7)); }

TEST_F(EpollSetOpen, RefusesWhatIsNoDescriptor) { EXPECT_FALSE(set_.change(-1, 0, POLLIN, 7)); }

TEST_F(EpollSetOpen, RefusesToChangeADescriptorThatHasBeenClosed) {
  EXPECT_TRUE(set_.change(fd_, 0, POLLIN, 7));
  ends_.near.reset();

  EXPECT_FALSE(set_.change(fd_, POLLIN, 0, 7));
}

TEST_F(EpollSetOpen, RefusesToChangeADescriptorThatIsAnotherFileNow) {
  const Ends other = tarn_test::udp_ends();
  EXPECT_TRUE(set_.change(fd_, 0, POLLIN, 7));
  ASSERT_EQ(dup2(other.near.get(), fd_), fd_);

  EXPECT_FALSE(set_.change(fd_, POLLIN, POLLIN, 7));
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
    ASSERT_TRUE(set_.change(fds[1], 0, POLLOUT, 1));
    ASSERT_TRUE(set_.change(fds[0], 0, POLLIN, 1));
    ASSERT_EQ(write(fds[1], "x", 1), 1);
  }
  std::vector<int> told;
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(wait(kLong), 1000);
    for (const ReadyDescriptor& each : ready_) told.push_back(each.fd);
  }

  std::sort(told.begin(), told.end());
  told.erase(std::unique(told.begin(), told.end()), told.end());
  EXPECT_EQ(told.size(), 1002u);
}

TEST_F(EpollSetOpen, TellsASignalFromSilence) {
  const tarn_test::SignalEvery signal(std::chrono::milliseconds(1));

  EXPECT_EQ(wait(kLong), -1);
  EXPECT_EQ(errno, EINTR);
}

TEST_F(EpollSetOpen, CannotWaitOnWhatIsNoSet) { EXPECT_EQ(EpollSet::wait(fd_, 0, ready_), -1); }

#endif
