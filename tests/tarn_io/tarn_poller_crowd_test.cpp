// TarnPoller with many descriptors: the same rules, whatever it waits with.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "tarn_io/tarn_poller.h"
#include "tests/support/net_call.h"
#include "tests/support/net_sockets.h"
#include "tests/support/plain_socket.h"

using tarn_test::Call;
using tarn_test::Ends;
using tarn_test::OwnedFd;

namespace {

constexpr unsigned int kLong = 5000;  // ms
constexpr size_t kCrowd = 60;
// A look at every descriptor is due a second after the last one; the clock may be a tick behind.
constexpr std::chrono::milliseconds kLookPeriod(1100);

// A poller that watches many idle sockets and has begun to wait for them.
class TarnPollerCrowd : public testing::Test {
 protected:
  TarnPollerCrowd() {
    for (size_t i = 0; i < kCrowd; ++i) {
      idle_.push_back(tarn_test::udp_on_loopback());
      poller_.watch_read(idle_.back().get(), never_.function());
    }
    poller_.poll(0);
    poller_.poll(0);
  }
  ~TarnPollerCrowd() override { EXPECT_EQ(never_.count(), 0) << "nobody wrote to the crowd"; }

  // Polls without waiting until `call` has run `count` times, for as long as a look can take.
  void pass_until(const Call& call, int count) {
    const auto begun = std::chrono::steady_clock::now();
    while (call.count() < count && std::chrono::steady_clock::now() - begun < kLookPeriod) {
      poller_.poll(0);
    }
  }

  // Behind the poller's back.
  static void close_set() {
    for (int fd = 0; fd < 1000; ++fd) {
      if (tarn_test::file_of(fd) == "anon_inode:[eventpoll]") close(fd);
    }
  }

  void disperse() {
    for (const OwnedFd& each : idle_) poller_.unwatch_read(each.get());
    idle_.clear();
    poller_.poll(0);
  }

  Call never_;
  std::vector<OwnedFd> idle_;
  TarnPoller poller_;
};

// A datagram waits at `near`.
Ends readable_ends() {
  Ends ends = tarn_test::udp_ends();
  tarn_test::send_text(ends.far.get(), "hello");
  return ends;
}

}  // namespace

TEST_F(TarnPollerCrowd, CallsTheReadSlotOncePerPassWhileThereIsSomethingToRead) {
  const Ends ends = readable_ends();
  Call read;
  poller_.watch_read(ends.near.get(), read.function());

  for (int pass = 1; pass <= 5; ++pass) {
    EXPECT_TRUE(poller_.poll(kLong));
    EXPECT_EQ(read.count(), pass);
  }
  tarn_test::receive_text(ends.near.get());
  EXPECT_TRUE(poller_.poll(0));

  EXPECT_EQ(read.count(), 5);
}

TEST_F(TarnPollerCrowd, RunsAllReadyDescriptorsInAscendingOrder) {
  std::vector<int> order;
  std::vector<Ends> ends;
  std::vector<std::unique_ptr<Call>> calls;
  for (int i = 0; i < 80; ++i) ends.push_back(readable_ends());
  for (const Ends& each : ends) {
    const int fd = each.near.get();
    calls.push_back(std::make_unique<Call>([&order, fd] { order.push_back(fd); }));
  }
  // The last one first: it is not the order of watching that counts.
  for (size_t i = ends.size(); i-- > 0;) {
    poller_.watch_read(ends[i].near.get(), calls[i]->function());
  }

  poller_.poll(kLong);

  EXPECT_EQ(order.size(), ends.size());
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(TarnPollerCrowd, TellsWriteReadinessOncePerWatch) {
  const Ends ends = tarn_test::udp_ends();
  Call write;
  poller_.watch_write(ends.near.get(), write.function());

  poller_.poll(kLong);
  poller_.poll(0);
  EXPECT_EQ(write.count(), 1);
  poller_.watch_write(ends.near.get(), write.function());
  poller_.poll(kLong);

  EXPECT_EQ(write.count(), 2);
}

TEST_F(TarnPollerCrowd, KeepsReadingAfterAWriteEvent) {
  const Ends ends = readable_ends();
  Call read;
  Call write;
  poller_.watch_read(ends.near.get(), read.function());
  poller_.watch_write(ends.near.get(), write.function());

  poller_.poll(kLong);
  poller_.poll(kLong);

  EXPECT_EQ(read.count(), 2);
  EXPECT_EQ(write.count(), 1);
}

TEST_F(TarnPollerCrowd, DoesNotCallASlotThatWasUnwatched) {
  const Ends ends = readable_ends();
  Call read;
  poller_.watch_read(ends.near.get(), read.function());
  poller_.poll(kLong);
  poller_.unwatch_read(ends.near.get());

  poller_.poll(0);

  EXPECT_EQ(read.count(), 1);
}

TEST_F(TarnPollerCrowd, SkipsASlotThatAnEarlierCallbackOfThePassEmptied) {
  const Ends first = readable_ends();
  const Ends second = readable_ends();
  ASSERT_LT(first.near.get(), second.near.get());
  Call read_second;
  Call read_first([&] { poller_.unwatch_read(second.near.get()); });
  poller_.watch_read(first.near.get(), read_first.function());
  poller_.watch_read(second.near.get(), read_second.function());

  poller_.poll(kLong);

  EXPECT_EQ(read_first.count(), 1);
  EXPECT_EQ(read_second.count(), 0);
}

TEST_F(TarnPollerCrowd, HearsTheNextSocketWithANumberThatWasUsedBefore) {
  Ends first = readable_ends();
  const int number = first.near.get();
  Call read_first;
  Call read_second;
  poller_.watch_read(number, read_first.function());
  poller_.poll(kLong);
  poller_.unwatch_read(number);
  const Ends second = readable_ends();
  first.near.reset();
  ASSERT_EQ(dup2(second.near.get(), number), number);
  const OwnedFd reused(number);

  poller_.watch_read(number, read_second.function());
  poller_.poll(kLong);

  EXPECT_EQ(read_first.count(), 1);
  EXPECT_EQ(read_second.count(), 1);
}

TEST_F(TarnPollerCrowd, HearsAnotherFileThatTakesTheDescriptorsPlaceWhileItIsWatched) {
  const Ends first = tarn_test::udp_ends();
  const Ends second = readable_ends();
  Call read;
  poller_.watch_read(first.near.get(), read.function());
  poller_.poll(0);
  ASSERT_EQ(dup2(second.near.get(), first.near.get()), first.near.get());

  pass_until(read, 1);

  EXPECT_EQ(read.count(), 1);
}

TEST_F(TarnPollerCrowd, CallsTheErrorSlotOfADescriptorThatWasClosed) {
  OwnedFd fd = tarn_test::udp_on_loopback();
  Call error;
  poller_.watch_error(fd.get(), error.function());
  poller_.poll(0);
  fd.reset();

  pass_until(error, 1);

  EXPECT_EQ(error.count(), 1);
}

// The file lives on, and so would its place in what the kernel watches.
TEST_F(TarnPollerCrowd, StopsReadingADescriptorThatWasClosedWhileItsFileIsOpenElsewhere) {
  Ends ends = readable_ends();
  Call read;
  poller_.watch_read(ends.near.get(), read.function());
  poller_.poll(0);
  const OwnedFd elsewhere(dup(ends.near.get()));
  ends.near.reset();
  // A look finds it closed, which ends the set that tells of it.
  pass_until(read, INT_MAX);
  const int before = read.count();

  for (int pass = 0; pass < 100; ++pass) poller_.poll(0);

  EXPECT_EQ(read.count(), before);
}

TEST_F(TarnPollerCrowd, ReadsAFileThatIsAlwaysReady) {
  const OwnedFd file(open("/proc/self/exe", O_RDONLY));
  const Ends ends = readable_ends();
  Call read_file;
  Call read_socket;
  poller_.watch_read(file.get(), read_file.function());
  poller_.watch_read(ends.near.get(), read_socket.function());

  for (int pass = 0; pass < 3; ++pass) poller_.poll(kLong);

  EXPECT_EQ(read_file.count(), 3);
  EXPECT_EQ(read_socket.count(), 3);
}

TEST_F(TarnPollerCrowd, KeepsAPausedDescriptorOutUntilThePauseEnds) {
  const Ends ends = readable_ends();
  Call read;
  poller_.watch_read(ends.near.get(), read.function());
  poller_.pause(ends.near.get(), 600'000);
  poller_.poll(1);
  EXPECT_EQ(read.count(), 0);
  poller_.pause(ends.near.get(), 20);

  // Each pass waits for what is left of the pause at most.
  for (int pass = 0; pass < 1000 && read.count() == 0; ++pass) poller_.poll(kLong);

  EXPECT_EQ(read.count(), 1);
}

TEST_F(TarnPollerCrowd, EndsItsWaitWithAPauseThatAnotherThreadBeginsMeanwhile) {
  const Ends ends = tarn_test::udp_ends();
  const Ends wake = tarn_test::udp_ends();
  Call read;
  Call woken([&] {
    char byte = 0;
    recv(wake.near.get(), &byte, 1, 0);
  });
  Call waker([&] { tarn_test::send_text(wake.far.get(), "!"); });
  poller_.watch_read(ends.near.get(), read.function());
  poller_.watch_read(wake.near.get(), woken.function());
  poller_.set_waker(waker.function());
  waker.function()();
  poller_.poll(kLong);  // has something, so that the next pass is none that looks at all of them
  const auto begun = std::chrono::steady_clock::now();
  std::thread other([&] {
    usleep(20'000);
    poller_.pause(ends.near.get(), 20);
    tarn_test::send_text(ends.far.get(), "hello");
  });

  for (int pass = 0; pass < 100 && read.count() == 0; ++pass) poller_.poll(kLong);
  other.join();

  EXPECT_EQ(read.count(), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(kLong));
}

// The kernel's set refuses files.
TEST_F(TarnPollerCrowd, HearsAFileThatTookThePlaceOfAPausedDescriptor) {
  const OwnedFd file(open("/proc/self/exe", O_RDONLY));
  const Ends ends = tarn_test::udp_ends();
  Call read;
  poller_.watch_read(ends.near.get(), read.function());
  tarn_test::send_text(ends.far.get(), "hello");
  poller_.poll(kLong);  // has something, so that the next pass is none that looks at all of them
  poller_.pause(ends.near.get(), 1);
  ASSERT_EQ(dup2(file.get(), ends.near.get()), ends.near.get());
  usleep(5'000);
  const auto begun = std::chrono::steady_clock::now();

  poller_.poll(kLong);

  EXPECT_EQ(read.count(), 2);
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(kLong));
}

TEST_F(TarnPollerCrowd, HearsAResumedDescriptorAtOnce) {
  const Ends ends = readable_ends();
  Call read;
  poller_.watch_read(ends.near.get(), read.function());
  poller_.pause(ends.near.get(), 600'000);
  poller_.resume(ends.near.get());

  poller_.poll(kLong);

  EXPECT_EQ(read.count(), 1);
}

TEST_F(TarnPollerCrowd, DoesNotSpinOnAHangUpThatNobodyTakes) {
  const OwnedFd fd(socket(AF_INET, SOCK_STREAM, 0));
  Call read;
  poller_.watch_read(fd.get(), read.function());
  poller_.poll(0);
  const auto begun = std::chrono::steady_clock::now();
  int passes = 0;
  for (; std::chrono::steady_clock::now() - begun < std::chrono::milliseconds(150); ++passes) {
    poller_.poll(150);
  }

  EXPECT_LE(passes, 12);
  EXPECT_EQ(read.count(), 0);
}

TEST_F(TarnPollerCrowd, HearsAWatchMadeByAnotherThreadDuringTheWait) {
  const Ends ends = readable_ends();
  Call read;
  std::thread other([&] {
    usleep(20'000);
    poller_.watch_read(ends.near.get(), read.function());
  });

  poller_.poll(kLong);
  other.join();
  poller_.poll(kLong);

  EXPECT_GE(read.count(), 1);
}

TEST_F(TarnPollerCrowd, LeavesNoDescriptorOpenWhenItHasDispersed) {
  const int before = tarn_test::open_descriptors();
  const int crowd = static_cast<int>(idle_.size());

  disperse();
  EXPECT_FALSE(poller_.poll(0)) << "nothing is watched";

#ifdef __linux__
  EXPECT_EQ(tarn_test::open_descriptors(), before - crowd - 1) << "there was no set, or it stays";
#else
  EXPECT_EQ(tarn_test::open_descriptors(), before - crowd);
#endif
}

TEST_F(TarnPollerCrowd, NoticesAClosedDescriptorInASecondOfSilence) {
  const Ends ends = readable_ends();
  OwnedFd gone = tarn_test::udp_on_loopback();
  Call read([&] { tarn_test::receive_text(ends.near.get()); });
  Call error;
  poller_.watch_read(ends.near.get(), read.function());
  poller_.watch_error(gone.get(), error.function());
  poller_.poll(kLong);  // has something, so that the next pass is none that looks at all of them
  gone.reset();
  const auto begun = std::chrono::steady_clock::now();

  poller_.poll(kLong);

  EXPECT_EQ(error.count(), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(kLong));
}

#ifdef __linux__

// Some program that closes whatever it has not opened.
TEST_F(TarnPollerCrowd, HasANewSetSoonAfterItsOwnWasClosedByAnother) {
  const Ends ends = readable_ends();
  Call read;
  poller_.watch_read(ends.near.get(), read.function());
  poller_.poll(kLong);
  const int before = tarn_test::open_descriptors();
  close_set();

  poller_.poll(kLong);
  EXPECT_EQ(read.count(), 2) << "what is ready is told all the same";
  EXPECT_EQ(tarn_test::open_descriptors(), before - 1);
  pass_until(read, INT_MAX);

  EXPECT_EQ(tarn_test::open_descriptors(), before);
}

#endif

TEST_F(TarnPollerCrowd, HearsADescriptorSoonAfterItsPauseWhileOthersKeepItBusy) {
  const Ends ends = readable_ends();
  const Ends busy = readable_ends();
  Call read;
  Call read_busy;
  poller_.watch_read(busy.near.get(), read_busy.function());
  poller_.watch_read(ends.near.get(), read.function());
  poller_.pause(ends.near.get(), 50);
  for (int pass = 0; pass < 3; ++pass) poller_.poll(kLong);
  EXPECT_EQ(read.count(), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(60));

  poller_.poll(kLong);
  poller_.poll(kLong);

  EXPECT_GE(read.count(), 1);
}
