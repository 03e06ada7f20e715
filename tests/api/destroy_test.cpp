// The end of a session: order of events, draining, what calls do in between and afterwards.
#include <atomic>
#include <chrono>
#include <thread>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

using Destroy = SessionFixture;
using WaitDestroy = RealTimeFixture;

namespace {

std::vector<std::string> texts_up_to(const LogCapture& log, int level) {
  std::vector<std::string> all;
  for (const LogLine& line : log.lines()) {
    if (line.level <= level) all.push_back(line.text);
  }
  return all;
}

double seconds_of(const std::function<void()>& action) {
  const auto start = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

TEST_F(Destroy, Returns0ForALiveSession) {
  Endpoint a;
  EXPECT_EQ(tarn_destroy(a.handle()), 0);
}

TEST_F(Destroy, ReturnsMinus1ForABadHandle) {
  settle();  // what the worker logs when it starts is not counted
  const LogCapture log;
  int local;

  EXPECT_EQ(tarn_destroy(&local), -1);

  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(log.count(3, text("tarn %p destroy, wait time: %d", static_cast<void*>(&local), 0)), 1);
  EXPECT_EQ(log.count(2, "tarn_wait_destroy fail,bad tarn %"), 1);
}

TEST_F(Destroy, LogsItsStepsInOrder) {
  Endpoint a;
  a.send("x");
  settle();
  const unsigned now = static_cast<unsigned>(clock_.now_ms());
  const LogCapture log;
  void* const handle = a.handle();

  tarn_destroy(handle);
  ASSERT_TRUE(log.wait_for(text("tarn %p conv: 0 destroyed", handle)));
  a.forget();

  std::vector<std::string> steps;
  for (const std::string& line : texts_up_to(log, 4)) {
    if (line.find("cancel_timer") == std::string::npos) steps.push_back(line);
  }
  EXPECT_EQ(steps, (std::vector<std::string>{
                       text("tarn %p destroy, wait time: 0", handle),
                       text("tarn %p stop with delay 0", handle),
                       text("tarn stopped, legacy packet num 1 tick end %u wait ms 0", now),
                       text("tarn %p send bye", handle),
                       "kcp not surported",
                       text("tarn %p del", handle),
                       text("tarn %p conv: 0 destroyed", handle),
                   }));
}

TEST_F(Destroy, CancelsBothTimersFromTheCallingThread) {
  Endpoint a;
  const LogCapture log(2);

  tarn_destroy(a.handle());

  EXPECT_EQ(log.count_containing("cancel_timer id: "), 2);
}

TEST_F(Destroy, SendsNoBye) {
  Endpoint a;
  a.send("x");
  a.sent.clear();

  a.destroy();

  EXPECT_EQ(a.sent.count(), 0u);
}

TEST_F(Destroy, DoesNotEvenLogAByeAfterThePeersBye) {
  Endpoint a;
  a.input(datagram({bye()}));
  const LogCapture log;

  tarn_destroy(a.handle());

  EXPECT_EQ(log.count(3, text("tarn %p send bye", a.handle())), 0);
}

TEST_F(Destroy, SendsNoFeedbackThatWasDue) {
  Endpoint a;
  a.input(datagram({reliable(0, {1})}));

  a.destroy();
  advance(100);

  EXPECT_EQ(a.sent.count(), 0u);
}

TEST_F(Destroy, LogsTheConvAtTheEnd) {
  Endpoint a;
  void* const handle = a.handle();
  tarn_set_conv(handle, 42);
  const LogCapture log;

  tarn_destroy(handle);

  EXPECT_TRUE(log.wait_for(text("tarn %p conv: 42 destroyed", handle)));
  a.forget();
}

TEST_F(Destroy, AStoppedSessionDoesNothingAndLogsNothing) {
  Endpoint a;
  const WorkerHold hold;
  tarn_destroy(a.handle());
  const LogCapture log(2);
  char buffer[32] = {};

  a.send("x");
  a.send_unreliable("x");
  tarn_send_unreliable_nocp(a.handle(), buffer, 20);
  a.input(datagram({reliable(0, {1}), unreliable({2}), bye(), segment(kUna, 3, {})}));

  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(a.sent.count(), 0u);
  EXPECT_EQ(a.reliable_received.count(), 0u);
  EXPECT_EQ(a.unreliable_received.count(), 0u);
  EXPECT_TRUE(a.errors.all().empty());
}

TEST_F(Destroy, OnceDroppedTheHandleIsBad) {
  Endpoint a;
  tarn_destroy(a.handle());
  ASSERT_TRUE(wait_until_gone(a.handle()));
  const LogCapture log;

  a.send("x");

  EXPECT_EQ(log.count(2, text("tarn_send_reliable fail,bad tarn %p", a.handle())), 1);
  EXPECT_EQ(tarn_destroy(a.handle()), -1);
  a.forget();
}

TEST_F(Destroy, TwiceBeforeTheWorkerGetsToItIsFine) {
  Endpoint a;
  WorkerHold hold;

  EXPECT_EQ(tarn_destroy(a.handle()), 0);
  EXPECT_EQ(tarn_destroy(a.handle()), 0);
  hold.release();

  EXPECT_EQ(tarn_destroy(a.handle()), -1);
  a.forget();
}

TEST_F(Destroy, ASecondDeletionSparesTheNextSessionUnderChurn) {
  for (int round = 0; round < 300; ++round) {
    void* const old = tarn_create();
    tarn_destroy(old);
    tarn_destroy(old);
    void* const next = tarn_create();
    tarn_set_conv(next, 7);
    tarn_destroy(tarn_create());
    settle();
    ASSERT_EQ(tarn_get_conv(next), 7u) << round;
    tarn_destroy(next);
  }
}

TEST_F(WaitDestroy, DoesNotWaitWithNothingOutstanding) {
  Endpoint a;
  EXPECT_LT(seconds_of([&] { EXPECT_EQ(tarn_wait_destroy(a.handle(), 60000), 0); }), 30);
}

TEST_F(WaitDestroy, DoesNotWaitFor0) {
  Endpoint a;
  a.send("x");
  const LogCapture log;

  tarn_wait_destroy(a.handle(), 0);

  EXPECT_EQ(log.count_containing("tarn stopped, legacy packet num 1 tick end "), 1);
  EXPECT_EQ(log.count_containing(" wait ms 0"), 1);
}

TEST_F(WaitDestroy, WaitsAsLongAsItWasTold) {
  Endpoint a;
  a.send("x");
  const LogCapture log;

  const double waited = seconds_of([&] { tarn_wait_destroy(a.handle(), 250); });

  EXPECT_GE(waited, 0.24);
  EXPECT_LT(waited, 5);
  EXPECT_EQ(log.count(3, text("tarn %p destroy, wait time: 250", a.handle())), 1);
  EXPECT_EQ(log.count(3, text("tarn %p stop with delay 250", a.handle())), 1);
  EXPECT_EQ(log.count_containing("tarn stopped, legacy packet num 1 tick end "), 1);
  EXPECT_EQ(log.count_containing(" wait ms 250"), 1);
}

TEST_F(WaitDestroy, ReSendsWhileItWaits) {
  Endpoint a;
  a.send("x");

  tarn_wait_destroy(a.handle(), 400);

  EXPECT_GE(a.sent.count(), 3u);
}

TEST_F(WaitDestroy, EndsWhenEverythingIsAcknowledged) {
  Endpoint a;
  a.send("x");
  a.send("y");
  const LogCapture log;
  std::thread peer([&] {
    wait_until([&] { return a.sent.count() >= 4; });
    a.input(datagram({una(1)}));
  });

  const double waited = seconds_of([&] { tarn_wait_destroy(a.handle(), 60000); });

  peer.join();
  EXPECT_LT(waited, 30);
  EXPECT_EQ(log.count_containing("tarn stopped, legacy packet num 0 tick end "), 1);
}

TEST_F(WaitDestroy, ReceivesAndAcknowledgesWhileItWaits) {
  Endpoint a;
  a.send("x");
  std::thread peer([&] {
    wait_until([&] { return a.sent.count() >= 2; });
    a.input(datagram({reliable(0, {1})}));
    wait_until([&] { return !segments_of_type(a.sent.all(), kUna).empty(); });
    a.input(datagram({una(0)}));
  });

  tarn_wait_destroy(a.handle(), 60000);

  peer.join();
  EXPECT_EQ(a.reliable_received.count(), 1u);
  EXPECT_EQ(segments_of_type(a.sent.all(), kUna).size(), 1u);
}

TEST_F(WaitDestroy, LogsALongWaitAsASignedNumber) {
  const LogCapture log;
  tarn_wait_destroy(nullptr, 0xFFFFFFFF);
  EXPECT_EQ(log.count(3, text("tarn %p destroy, wait time: -1", static_cast<void*>(nullptr))), 1);
}
