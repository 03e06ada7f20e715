// TarnPoller: how long a descriptor rests after an error or a hang-up, and what ends that.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <tuple>
#include <utility>

#include "tarn_io/tarn_poller.h"
#include "tests/support/net_call.h"
#include "tests/support/net_sockets.h"

using tarn_test::Call;
using tarn_test::Ends;
using tarn_test::OwnedFd;

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned int kLong = 5000;  // ms
constexpr int kHangUpRest = 100;      // ms
constexpr int kErrorRest = 10;        // ms

int64_t ms_since(Clock::time_point begun) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begun).count();
}

// Polls for `ms` milliseconds and says how often.
int passes_within(TarnPoller& poller, int ms) {
  const auto begun = Clock::now();
  int passes = 0;
  for (; ms_since(begun) < ms; ++passes) poller.poll(static_cast<unsigned int>(ms));
  return passes;
}

// What each of these makes goes on to be told whatever it is polled for.
Ends never_connected() { return {OwnedFd(socket(AF_INET, SOCK_STREAM, 0)), OwnedFd()}; }

Ends closed_descriptor() {
  Ends ends = tarn_test::udp_ends();
  close(ends.near.get());
  ends.near.release();
  return ends;
}

Ends reset() {
  Ends ends = tarn_test::tcp_ends();
  tarn_test::reset_connection(ends.far);
  return ends;
}

Ends ended() {
  Ends ends = tarn_test::tcp_ends();
  tarn_test::send_text(ends.far.get(), "last words");
  ends.far.reset();
  return ends;
}

Ends ended_on_both_sides() {
  Ends ends = ended();
  shutdown(ends.near.get(), SHUT_WR);
  return ends;
}

Ends ended_then_written_to() {
  Ends ends = ended();
  tarn_test::send_text(ends.near.get(), "too late");
  return ends;
}

Ends refused() {
  Ends ends = tarn_test::udp_ends();
  ends.far.reset();
  tarn_test::send_text(ends.near.get(), "refused");
  return ends;
}

struct Condition {
  const char* name;
  Ends (*make)();
};

constexpr Condition kConditions[] = {
    {"NeverConnected", &never_connected},
    {"Closed", &closed_descriptor},
    {"Reset", &reset},
    {"Ended", &ended},
    {"EndedOnBothSides", &ended_on_both_sides},
    {"EndedThenWrittenTo", &ended_then_written_to},
    {"Refused", &refused},
};

constexpr int kRead = 1;
constexpr int kWrite = 2;
constexpr int kError = 4;
constexpr int kSubsets = 8;

std::string name_of(int slots) {
  std::string name = slots == 0 ? "Nothing" : "";
  if ((slots & kRead) != 0) name += "Read";
  if ((slots & kWrite) != 0) name += "Write";
  if ((slots & kError) != 0) name += "Error";
  return name;
}

}  // namespace

// A condition, which slots are live, and whether only poll() can be had.
class LastingCondition : public testing::TestWithParam<std::tuple<Condition, int, bool>> {
 protected:
  LastingCondition() : ends_(std::get<0>(GetParam()).make()), fd_(number()) {
    const int slots = std::get<1>(GetParam());
    if ((slots & kRead) != 0) poller_.watch_read(fd_, read_.function());
    if ((slots & kWrite) != 0) poller_.watch_write(fd_, write_.function());
    if ((slots & kError) != 0) poller_.watch_error(fd_, error_.function());
    poller_.watch_read(silent_.near.get(), never_.function());
    // The kernel's sets refuse files. Nothing happens to it.
    if (std::get<2>(GetParam())) poller_.watch_error(file_.get(), never_.function());
  }

  // One that is not open stands for what was closed.
  int number() const { return ends_.near.get() >= 0 ? ends_.near.get() : 900; }

  const Ends silent_ = tarn_test::udp_ends();
  const OwnedFd file_{open("/proc/self/exe", O_RDONLY)};
  const Ends ends_;
  const int fd_;
  TarnPoller poller_;
  Call never_;
  // Whoever reads goes on until there is no more.
  Call read_{[this] {
    char byte = 0;
    while (recv(fd_, &byte, 1, MSG_DONTWAIT) > 0) continue;
    if (errno != EAGAIN) poller_.unwatch_read(fd_);
  }};
  Call write_;
  Call error_{[this] { poller_.watch_error(fd_, error_.function()); }};
};

TEST_P(LastingCondition, DoesNotMakeThePollerSpin) {
  constexpr int kTime = 35;  // ms

  const int passes = passes_within(poller_, kTime);

  // One for each rest that ends, and those that had something new to tell.
  EXPECT_LE(passes, kTime / kErrorRest + 6);
  EXPECT_LE(error_.count(), 2 * passes);
  EXPECT_LE(write_.count(), 1);
  EXPECT_EQ(never_.count(), 0);
}

INSTANTIATE_TEST_SUITE_P(TarnPollerRest, LastingCondition,
                         testing::Combine(testing::ValuesIn(kConditions),
                                          testing::Range(0, kSubsets), testing::Bool()),
                         [](const auto& tested) {
                           return std::string(std::get<0>(tested.param).name) + "Heard" +
                                  name_of(std::get<1>(tested.param)) +
                                  (std::get<2>(tested.param) ? "ByPoll" : "");
                         });

namespace {

// A descriptor in some condition, watched for errors.
struct Watched {
  explicit Watched(Ends made) : ends(std::move(made)) { poller.watch_error(fd, error.function()); }
  // Polls until the error function has been called so often, and says for how long.
  int64_t ms_until(int count) {
    const auto begun = Clock::now();
    while (error.count() < count && ms_since(begun) < kLong) poller.poll(kLong);
    return ms_since(begun);
  }

  const Ends ends;
  const int fd = ends.near.get();
  TarnPoller poller;
  std::function<void()> on_error = [] {};
  Call error{[this] { on_error(); }};
};

}  // namespace

TEST(TarnPollerRest, LastsForATenthOfASecondAfterAHangUp) {
  Watched watched(never_connected());

  const int64_t ms = watched.ms_until(2);

  EXPECT_EQ(watched.error.count(), 2);
  EXPECT_GE(ms, kHangUpRest - 1) << "milliseconds are cut off";
}

TEST(TarnPollerRest, LastsForAHundredthOfASecondAfterAnError) {
  Watched watched(refused());

  const int64_t ms = watched.ms_until(11);

  EXPECT_EQ(watched.error.count(), 11);
  EXPECT_GE(ms, 10 * kErrorRest - 10) << "milliseconds are cut off, here and there";
  EXPECT_LT(ms, 10 * kHangUpRest);
}

TEST(TarnPollerRest, LeavesAPendingErrorToTheNextSend) {
  Watched watched(refused());

  passes_within(watched.poller, 2 * kErrorRest);

  EXPECT_EQ(send(watched.fd, "!", 1, 0), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(TarnPollerRest, IsEndedByResumeInsideTheFunction) {
  Watched watched(never_connected());
  watched.on_error = [&] { watched.poller.resume(watched.fd); };

  watched.poller.poll(kLong);
  watched.poller.poll(0);

  EXPECT_EQ(watched.error.count(), 2);
}

TEST(TarnPollerRest, IsEndedByResumeAfterwards) {
  Watched watched(never_connected());
  watched.poller.poll(kLong);
  watched.poller.poll(0);
  ASSERT_EQ(watched.error.count(), 1);

  watched.poller.resume(watched.fd);
  watched.poller.poll(0);

  EXPECT_EQ(watched.error.count(), 2);
}

TEST(TarnPollerRest, GoesOnWhenASlotIsWatchedAnew) {
  Watched watched(never_connected());
  Call read;
  watched.poller.poll(kLong);

  watched.poller.watch_error(watched.fd, watched.error.function());
  watched.poller.watch_read(watched.fd, read.function());
  watched.poller.poll(0);

  EXPECT_EQ(watched.error.count(), 1);
}

// The number may be another socket's.
TEST(TarnPollerRest, IsOverWhenEverythingWasUnwatched) {
  Watched watched(never_connected());
  watched.poller.poll(kLong);

  watched.poller.unwatch_error(watched.fd);
  watched.poller.watch_error(watched.fd, watched.error.function());
  watched.poller.poll(0);

  EXPECT_EQ(watched.error.count(), 2);
}

TEST(TarnPollerRest, DoesNotDelayWhatIsLeftToRead) {
  Watched watched(ended_on_both_sides());
  std::string text;
  Call read([&] {
    char byte = 0;
    if (recv(watched.fd, &byte, 1, 0) == 1) text += byte;
  });
  watched.poller.watch_read(watched.fd, read.function());

  for (size_t i = 0; i < std::string("last words").size(); ++i) watched.poller.poll(0);

  EXPECT_EQ(text, "last words");
}

TEST(TarnPollerRest, BeginsThoughDataIsLeftWhenNobodyReads) {
  Watched watched(ended_on_both_sides());

  watched.poller.poll(kLong);
  watched.poller.poll(0);

  EXPECT_EQ(watched.error.count(), 1);
}
