// SendWindow: the wait for the last acknowledgements, in sleeps that take no time.
#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <vector>

#include "src/send_window.h"
#include "tests/support/kit_bytes.h"
#include "tests/support/kit_worker.h"
#include "tests/support/log_capture.h"
#include "tests/support/virtual_clock.h"

namespace {

// What a sleep of the thread under test does instead; other threads sleep as ever.
thread_local const std::function<void(useconds_t us)>* on_sleep = nullptr;

}  // namespace

extern "C" int usleep(useconds_t us) {
  if (on_sleep != nullptr) {
    (*on_sleep)(us);
    return 0;
  }
  const timespec time = {static_cast<time_t>(us / 1'000'000),
                         static_cast<long>(us % 1'000'000) * 1000};
  return nanosleep(&time, nullptr);
}

namespace {

using Sleeps = std::vector<int>;

constexpr uint64_t kWrap = uint64_t{1} << 32;  // ms; where the tick begins again at 0
constexpr size_t kTooMany = 100;

// A window with one packet that nobody acknowledges.
class DrainingWindow : public ::testing::Test {
 protected:
  DrainingWindow() {
    DataView packet = tarn_test::owned_view("packet");
    window_->write(7, packet);
  }

  // The sleeps of a drain, in ms. The clock goes on by `steps`, then by what was asked for.
  Sleeps drain(unsigned int wait_ms, std::vector<int64_t> steps = {}) {
    Sleeps sleeps;
    const std::function<void(useconds_t)> sleep = [&](useconds_t us) {
      const size_t turn = sleeps.size();
      sleeps.push_back(static_cast<int>(us / 1000));
      clock_.advance_ms(turn < steps.size() ? steps[turn] : us / 1000);
      if (turn == acknowledged_in_ || turn == kTooMany) window_->ack(7);
    };
    on_sleep = &sleep;
    window_->stop(wait_ms);
    on_sleep = nullptr;
    return sleeps;
  }

  tarn_test::VirtualClock clock_;
  tarn_test::TestWindow window_;
  size_t acknowledged_in_ = kTooMany;  // the sleep during which the acknowledgement comes
};

TEST_F(DrainingWindow, SleepsInStepsOf100Ms) { EXPECT_EQ(drain(250), (Sleeps{100, 100, 100})); }

TEST_F(DrainingWindow, IsOverAtItsEndExactly) { EXPECT_EQ(drain(200), (Sleeps{100, 100})); }

TEST_F(DrainingWindow, SleepsNoLongerThanItsWait) {
  EXPECT_EQ(drain(30), (Sleeps{30}));
  EXPECT_EQ(drain(1), (Sleeps{1}));
}

TEST_F(DrainingWindow, DoesNotSleepForNothing) { EXPECT_EQ(drain(0), Sleeps{}); }

TEST_F(DrainingWindow, DoesNotSleepWhenItIsEmpty) {
  window_->ack(7);
  EXPECT_EQ(drain(1000), Sleeps{});
}

TEST_F(DrainingWindow, EndsWithTheSleepInWhichItBecomesEmpty) {
  acknowledged_in_ = 1;
  EXPECT_EQ(drain(1000), (Sleeps{100, 100}));
}

TEST_F(DrainingWindow, IsCutShortWhenItsEndLiesBehindTheWrap) {
  clock_.set_ms(kWrap - 50);
  EXPECT_EQ(drain(100), Sleeps{});
}

TEST_F(DrainingWindow, EndsWhenASleepTakesItBeyondItsEndAndTheWrap) {
  clock_.set_ms(kWrap - 300);
  EXPECT_EQ(drain(200, {400}), Sleeps{100});
  clock_.set_ms(kWrap - 300);
  EXPECT_EQ(drain(200, {700}), Sleeps{100});
}

TEST_F(DrainingWindow, GoesOnWhenTheClockStepsBack) {
  EXPECT_EQ(drain(100, {-50}), (Sleeps{100, 100, 100}));
}

TEST_F(DrainingWindow, LogsWhatIsLeftAndWhenItHadToEnd) {
  const auto start = static_cast<unsigned int>(clock_.now_ms());
  const tarn_test::LogCapture log(3);
  drain(250);
  const std::string end = std::to_string(start + 250);
  EXPECT_EQ(log.count(3, "tarn stopped, legacy packet num 1 tick end " + end + " wait ms 250"), 1);
}

}  // namespace
