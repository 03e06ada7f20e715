// The check for silence: what counts as activity, and when its absence is reported.
#include "tests/support/session_fixture.h"

using namespace tarn_test;

using Activity = SessionFixture;

namespace {

int silences(const Endpoint& a) { return a.errors.count(TARN_ERROR_INACTIVE); }

}  // namespace

TEST_F(Activity, SilenceIsReportedByTheFirstCycleAfterMoreThan5Seconds) {
  Endpoint a;

  advance_by_steps(5000, 50);
  EXPECT_EQ(silences(a), 0);
  advance(49);
  EXPECT_EQ(silences(a), 0);
  advance(1);

  EXPECT_EQ(a.errors.all(), std::vector<int>{TARN_ERROR_INACTIVE});
}

TEST_F(Activity, SilenceIsReportedAgainByEveryCycle) {
  Endpoint a;
  advance_by_steps(5000, 50);

  for (int cycle = 1; cycle <= 10; ++cycle) {
    advance(50);
    EXPECT_EQ(silences(a), cycle);
  }
}

TEST_F(Activity, SilenceIsReportedByTheWorker) {
  Endpoint a;

  advance(5050);

  ASSERT_GT(silences(a), 0);
  EXPECT_NE(a.errors.last_thread(), std::this_thread::get_id());
}

TEST_F(Activity, SilenceIsLoggedWithBothTicks) {
  Endpoint a;
  const unsigned start = static_cast<unsigned>(clock_.now_ms());
  advance_by_steps(5000, 50);
  const LogCapture log;

  advance(50);

  EXPECT_EQ(log.count(2, text("%p active check FAIL now %u,last %u diff 5050", a.handle(),
                              start + 5050, start)),
            1);
}

TEST_F(Activity, SilenceIsLoggedEvenWithoutAnErrorCallback) {
  Endpoint a;
  tarn_set_error_callback(a.handle(), nullptr, nullptr);
  advance_by_steps(5000, 50);
  const LogCapture log;

  advance(50);

  EXPECT_EQ(log.count_containing(text("%p active check FAIL", a.handle())), 1);
}

TEST_F(Activity, ASilentSessionGoesOnWorking) {
  Endpoint a;
  advance(6000);

  a.input(datagram({unreliable({1})}));
  a.send("x");

  EXPECT_EQ(a.unreliable_received.count(), 1u);
  EXPECT_EQ(a.sent.count(), 1u);
}

TEST_F(Activity, AnyDatagramEndsTheSilence) {
  const std::vector<Bytes> datagrams{
      datagram({unreliable({1})}), datagram({}), {'$'}, {'?', '?', '?'}, {}, datagram({una(0)})};
  for (const Bytes& one : datagrams) {
    Endpoint a;
    advance(4900);
    a.input(one);
    advance_by_steps(5000, 50);
    EXPECT_EQ(silences(a), 0) << one.size();
    advance(100);
    EXPECT_GT(silences(a), 0) << one.size();
  }
}

TEST_F(Activity, AReliableMessageEndsTheSilence) {
  Endpoint a;
  advance(4900);
  a.send("x");

  advance(5000);
  EXPECT_EQ(silences(a), 0);
  advance(100);
  EXPECT_GT(silences(a), 0);
}

TEST_F(Activity, AReliableMessageThatOverflowsEndsTheSilenceToo) {
  tarn_config_send_window_size(0);
  Endpoint a;
  advance(4900);
  a.send("x");

  advance(5000);

  EXPECT_EQ(silences(a), 0);
}

TEST_F(Activity, ASplitMessageEndsTheSilence) {
  Endpoint a;
  advance(4900);
  a.send(pattern(5000));

  advance(5000);

  EXPECT_EQ(silences(a), 0);
}

TEST_F(Activity, AnUnreliableMessageEndsTheSilence) {
  Endpoint a;
  advance(4900);
  a.send_unreliable("x");

  advance(5000);
  EXPECT_EQ(silences(a), 0);
  advance(100);
  EXPECT_GT(silences(a), 0);
}

TEST_F(Activity, ACopyFreeMessageDoesNot) {
  Endpoint a;
  advance(4900);
  char buffer[32] = {};
  tarn_send_unreliable_nocp(a.handle(), buffer, 20);

  advance(150);

  EXPECT_GT(silences(a), 0);
}

TEST_F(Activity, FeedbackDoesNot) {
  Endpoint a;
  a.input(datagram({reliable(0, {1})}));
  advance(50);
  ASSERT_EQ(a.sent.count(), 1u);

  advance_by_steps(4950, 50);
  EXPECT_EQ(silences(a), 0);
  advance(50);

  EXPECT_EQ(silences(a), 1);
}

TEST_F(Activity, AMessageEverySecondIsEnough) {
  Endpoint a;
  Endpoint b;
  for (int second = 0; second < 20; ++second) {
    a.send("x");
    b.send_unreliable("x");
    advance_by_steps(1000, 50);
  }
  EXPECT_EQ(silences(a), 0);
  EXPECT_EQ(silences(b), 0);
}

TEST_F(Activity, SendingThroughAMissingOutputCounts) {
  Endpoint a;
  tarn_set_output_callback(a.handle(), nullptr, nullptr);
  advance(4900);
  a.send_unreliable("x");

  advance(5000);

  EXPECT_EQ(silences(a), 0);
}

TEST_F(Activity, TimeoutAppliesAtOnce) {
  Endpoint a;
  tarn_config_active_timeout(200);

  advance_by_steps(200, 50);
  EXPECT_EQ(silences(a), 0);
  advance(50);
  EXPECT_EQ(silences(a), 1);
  tarn_config_active_timeout(300);
  advance(50);

  EXPECT_EQ(silences(a), 1);
}

TEST_F(Activity, Timeout0FailsInEveryIdleCycle) {
  tarn_config_active_timeout(0);
  Endpoint a;

  advance(50);
  advance(50);

  EXPECT_EQ(silences(a), 2);
}

TEST_F(Activity, TheLargestTimeoutNeverFails) {
  tarn_config_active_timeout(0xFFFFFFFF);
  Endpoint a;

  advance(100000);

  EXPECT_EQ(silences(a), 0);
}

TEST_F(Activity, PeriodIsTheRtxTimeout) {
  tarn_config_rtx_timeout(400);
  Endpoint a;
  advance_by_steps(5000, 200);
  EXPECT_EQ(silences(a), 0);

  advance(200);
  EXPECT_EQ(silences(a), 1);
  advance(399);
  EXPECT_EQ(silences(a), 1);
  advance(1);

  EXPECT_EQ(silences(a), 2);
}

TEST_F(Activity, IsNotCheckedAfterTheEnd) {
  Endpoint a;
  a.destroy();

  advance(10000);

  EXPECT_EQ(silences(a), 0);
}
