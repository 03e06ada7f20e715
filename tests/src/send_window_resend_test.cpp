// SendWindow: the rotation, its timer, and the end of both.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "src/send_window.h"
#include "tests/support/kit_bytes.h"
#include "tests/support/kit_resends.h"
#include "tests/support/kit_worker.h"
#include "tests/support/log_capture.h"
#include "tests/support/virtual_clock.h"

using tarn_test::LogCapture;
using tarn_test::owned_view;
using tarn_test::pointer_text;
using tarn_test::worker_turn;
using Seqs = std::vector<int>;

namespace {

bool write_to(SendWindow& window, int seq) {
  DataView packet = owned_view("packet " + std::to_string(seq));
  return window.write(static_cast<unsigned short>(seq), packet);
}

// With the clock stopped, the rotation moves by tick(), or by the timer when a test moves the
// clock.
class Resending : public ::testing::Test {
 protected:
  Resending() { window_->set_resend_callback(resends_.callback()); }
  void SetUp() override { TARN_SKIP_UNLESS_WORKER_IS_FRESH(history_); }

  bool write(int seq) { return write_to(*window_.get(), seq); }
  // What the next turn of the rotation re-sends.
  Seqs tick() {
    resends_.take();
    window_.tick();
    return resends_.take();
  }
  // What the timer re-sends in the next 30 ms.
  Seqs after_30_ms() {
    resends_.take();
    clock_.advance_ms(30);
    worker_turn();
    return resends_.take();
  }

  tarn_test::WorkerHistory history_;
  tarn_test::VirtualClock clock_;
  tarn_test::Resends resends_;
  tarn_test::TestWindow window_;
};

TEST_F(Resending, TakesTheBucketBeforeTheCurrentOne) {
  write(1);
  EXPECT_EQ(tick(), Seqs{}) << "bucket 3, while 0 is current";
  EXPECT_EQ(tick(), Seqs{1});
}

TEST_F(Resending, ComesAroundEveryFourthTurn) {
  write(1);
  std::vector<int> turns;
  for (int turn = 1; turn <= 14; ++turn) {
    if (!tick().empty()) turns.push_back(turn);
  }
  EXPECT_EQ(turns, (std::vector<int>{2, 6, 10, 14}));
}

TEST_F(Resending, KeepsAPacketInTheBucketItWasWrittenTo) {
  write(1);
  tick();
  write(2);
  tick();
  write(3);
  EXPECT_EQ(tick(), Seqs{2});
  EXPECT_EQ(tick(), Seqs{3});
  EXPECT_EQ(tick(), Seqs{});
  EXPECT_EQ(tick(), Seqs{1});
}

TEST_F(Resending, EmitsABucketInSequenceOrder) {
  for (const int seq : {1, 65535, 2, 0, 65534}) write(seq);
  tick();
  EXPECT_EQ(tick(), (Seqs{65534, 65535, 0, 1, 2}));
}

TEST_F(Resending, EmitsTheStoredBytes) {
  write(8);
  tick();
  tick();
  EXPECT_EQ(resends_.texts(), std::vector<std::string>{"packet 8"});
}

TEST_F(Resending, StartsWithTheKeepFlagSetAndIgnoresItAfterwards) {
  resends_.on_resend = [](unsigned short, bool* keep) { *keep = false; };
  for (const int seq : {1, 2}) write(seq);
  tick();
  tick();
  EXPECT_EQ(resends_.kept(), (std::vector<bool>{true, true}));
  EXPECT_EQ(window_->count(), 2);
}

TEST_F(Resending, StaysWhereItIsWithoutACallback) {
  window_->set_resend_callback(oxutils::Function());
  for (int i = 0; i < 3; ++i) tick();
  write(1);
  window_->set_resend_callback(resends_.callback());
  EXPECT_EQ(tick(), Seqs{});
  EXPECT_EQ(tick(), Seqs{1});
}

TEST_F(Resending, LeavesOutWhatIsAcknowledged) {
  for (const int seq : {1, 2, 3}) write(seq);
  window_->ack(2);
  tick();
  EXPECT_EQ(tick(), (Seqs{1, 3}));
}

TEST_F(Resending, LogsNumberOfPacketsAndSequenceNumber) {
  for (const int seq : {7, 8}) write(seq);
  const LogCapture log;
  tick();
  tick();
  const std::string prefix = pointer_text(window_.get()) + " resend data size: 2 seq: ";
  EXPECT_EQ(log.count_containing(prefix + "7 func: "), 1);
  EXPECT_EQ(log.count_containing(prefix + "8 func: "), 1);
  for (const auto& line : log.lines()) {
    if (line.text.find("resend data size") != std::string::npos) {
      EXPECT_EQ(line.level, 3);
    }
  }
}

TEST_F(Resending, LogsTheFirstFourAndEveryHundredth) {
  for (int seq = 0; seq < 25; ++seq) write(seq);
  const LogCapture log;
  for (int turn = 0; turn < 3 * 4; ++turn) tick();
  EXPECT_EQ(log.count_containing("resend data size"), 4) << "75 packets";
  for (int turn = 0; turn < 4; ++turn) tick();
  EXPECT_EQ(log.count_containing("resend data size"), 5) << "100 packets";
  EXPECT_EQ(log.count_containing(" seq: 24 func"), 1) << "the last of them";
  for (int turn = 0; turn < 4 * 4; ++turn) tick();
  EXPECT_EQ(log.count_containing("resend data size"), 6) << "200 packets";
}

TEST_F(Resending, CallbackMayAcknowledgeThePacketItGets) {
  resends_.on_resend = [this](unsigned short seq, bool*) { window_->ack(seq); };
  for (const int seq : {1, 2, 3}) write(seq);
  tick();
  EXPECT_EQ(tick(), (Seqs{1, 2, 3}));
  EXPECT_EQ(window_->count(), 0);
}

TEST_F(Resending, PacketAcknowledgedDuringThePassIsNotEmitted) {
  resends_.on_resend = [this](unsigned short seq, bool*) {
    if (seq == 1) window_->ack(3);
    if (seq == 2) window_->una(4);
  };
  for (const int seq : {1, 2, 3, 4, 5}) write(seq);
  tick();
  EXPECT_EQ(tick(), (Seqs{1, 2, 5}));
  EXPECT_EQ(window_->count(), 1);
}

TEST_F(Resending, CallbackMayWriteAndCount) {
  unsigned count = 0;
  resends_.on_resend = [&](unsigned short seq, bool*) {
    if (seq == 1) {
      EXPECT_TRUE(write(100));
    }
    count = window_->count();
  };
  write(1);
  tick();
  tick();
  EXPECT_EQ(count, 2u);
}

TEST_F(Resending, NobodyHoldsTheWindowWhileItCallsOut) {
  unsigned count = 0;
  resends_.on_resend = [&](unsigned short, bool*) {
    std::thread other([&] { count = window_->count(); });
    other.join();
  };
  write(1);
  tick();
  tick();
  EXPECT_EQ(count, 1u);
}

TEST_F(Resending, TimerReEmitsEvery120Ms) {
  write(1);
  std::vector<int> times;
  for (int ms = 30; ms <= 420; ms += 30) {
    if (!after_30_ms().empty()) times.push_back(ms);
  }
  EXPECT_EQ(times, (std::vector<int>{60, 180, 300, 420}));
}

TEST_F(Resending, TimerDoesNotFireEarly) {
  write(1);
  after_30_ms();
  clock_.advance_ms(29);
  worker_turn();
  EXPECT_EQ(resends_.take(), Seqs{});
  clock_.advance_ms(1);
  worker_turn();
  EXPECT_EQ(resends_.take(), Seqs{1});
}

TEST_F(Resending, TimerIgnoresTheConfiguredTimeout) {
  tarn_config_rtx_timeout(1000);
  const tarn_test::TestWindow other;
  tarn_config_rtx_timeout(50);
  write(1);
  after_30_ms();
  EXPECT_EQ(after_30_ms(), Seqs{1});
}

TEST_F(Resending, StopEndsTheTimer) {
  write(1);
  window_->stop();
  worker_turn();
  for (int i = 0; i < 8; ++i) EXPECT_EQ(after_30_ms(), Seqs{});
  EXPECT_EQ(window_->count(), 1);
}

TEST_F(Resending, StopMayBeRepeated) {
  const LogCapture log;
  window_->stop();
  window_->stop();
  EXPECT_EQ(log.count_containing("thread_id"), 2) << "the id is kept and cancelled again";
}

TEST_F(Resending, StopWithoutATimeReturnsAtOnce) {
  write(1);
  const LogCapture log;
  window_->stop(0);
  EXPECT_EQ(log.count(3, "tarn stopped, legacy packet num 1 tick end 1000000 wait ms 0"), 1);
}

TEST_F(Resending, StopOfAnEmptyWindowReturnsAtOnce) {
  const LogCapture log;
  window_->stop(60000);
  EXPECT_EQ(log.count(3, "tarn stopped, legacy packet num 0 tick end 1060000 wait ms 60000"), 1);
}

TEST_F(Resending, StopWaitsUntilTheWindowIsEmpty) {
  write(1);  // with the clock stopped only an empty window ends the wait
  std::thread peer([this] { window_->ack(1); });
  const LogCapture log;
  window_->stop(500);
  peer.join();
  EXPECT_EQ(log.count(3, "tarn stopped, legacy packet num 0 tick end 1000500 wait ms 500"), 1);
}

TEST(ResendingInRealTime, StopWaitsNoLongerThanItsTime) {
  tarn_test::Resends resends;
  tarn_test::TestWindow window;
  window->set_resend_callback(resends.callback());
  write_to(*window.get(), 1);
  const auto begin = std::chrono::steady_clock::now();
  window->stop(250);
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(took, std::chrono::milliseconds(240));
  EXPECT_LT(took, std::chrono::seconds(20));
  EXPECT_EQ(window->count(), 1);
}

TEST(ResendingInRealTime, ThreadsWriteAndAcknowledgeBesideTheRotation) {
  tarn_test::Resends resends;
  tarn_test::TestWindow window;
  window->set_resend_callback(resends.callback());
  std::vector<std::thread> threads;
  for (int part = 0; part < 3; ++part) {
    threads.emplace_back([&window, part] {
      for (int i = 0; i < 300; ++i) {
        const int seq = i * 3 + part;
        while (!write_to(*window.get(), seq)) std::this_thread::yield();
        window->ack(static_cast<unsigned short>(seq));
        if (i % 16 == 0) window->count();
      }
    });
  }
  for (int turn = 0; turn < 100; ++turn) {
    window.tick();
    window->set_resend_callback(resends.callback());
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(window->count(), 0);
}

}  // namespace
