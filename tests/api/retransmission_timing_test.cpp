// When stored segments go out again, to the millisecond.
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

class RetransmissionTiming : public SessionFixture {
 protected:
  // The milliseconds after now at which `a` sends something, within `ms`.
  std::vector<int> emissions(Endpoint& a, int ms, int step = 5) {
    std::vector<int> at;
    for (int now = step; now <= ms; now += step) {
      const size_t before = a.sent.count();
      advance(step);
      if (a.sent.count() > before) at.push_back(now);
    }
    return at;
  }
};

}  // namespace

TEST_F(RetransmissionTiming, FirstAfter60MsThenEvery120Ms) {
  Endpoint a;
  a.send("x");
  EXPECT_EQ(emissions(a, 700), (std::vector<int>{60, 180, 300, 420, 540, 660}));
}

TEST_F(RetransmissionTiming, NothingIsReSentBeforeTheExactMillisecond) {
  Endpoint a;
  a.send("x");

  advance(59);
  EXPECT_EQ(a.sent.count(), 1u);
  advance(1);
  EXPECT_EQ(a.sent.count(), 2u);
  advance(119);
  EXPECT_EQ(a.sent.count(), 2u);
  advance(1);
  EXPECT_EQ(a.sent.count(), 3u);
}

TEST_F(RetransmissionTiming, TheFirstReSendComes30To60MsAfterTheSend) {
  for (const int age : {0, 5, 25, 30, 35, 55, 60, 85, 90, 115}) {
    Endpoint a;
    advance_by_steps(age, 5);
    a.send("x");
    const std::vector<int> at = emissions(a, 120);
    // Ticks come every 30 ms of the session's age; the bucket written now is re-sent by the second.
    const int expected = (age / 30 + 2) * 30 - age;
    EXPECT_EQ(at, std::vector<int>{expected}) << age;
  }
}

TEST_F(RetransmissionTiming, RtxTimeoutHasNoPartInIt) {
  tarn_config_rtx_timeout(1000);
  Endpoint a;
  a.send("x");
  EXPECT_EQ(emissions(a, 400), (std::vector<int>{60, 180, 300}));
}

TEST_F(RetransmissionTiming, ThereIsNoBackOffAndNoLimit) {
  tarn_config_active_timeout(1000000);
  Endpoint a;
  a.send("x");

  advance_by_steps(60, 30);
  EXPECT_EQ(a.sent.count(), 2u);
  advance_by_steps(60000, 120);

  EXPECT_EQ(a.sent.count(), 2u + 500);
}

TEST_F(RetransmissionTiming, MissedPeriodsAreCaughtUpOneByOne) {
  Endpoint a;
  a.send("x");

  advance(60 + 4 * 120);

  EXPECT_EQ(a.sent.count(), 1u + 5);
}

TEST_F(RetransmissionTiming, ASegmentIsReSentUnchanged) {
  Endpoint a;
  a.send(pattern(3000));
  const std::vector<Bytes> first = a.sent.all();
  a.sent.clear();

  advance(60);

  EXPECT_EQ(a.sent.all(), first);
}

TEST_F(RetransmissionTiming, ABucketIsReSentOldestFirst) {
  Endpoint a;
  for (int i = 0; i < 10; ++i) a.send("x");
  a.sent.clear();

  advance(60);

  EXPECT_EQ(a.sent_numbers(), (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST_F(RetransmissionTiming, ABucketIsReSentInOrderAcrossTheWrap) {
  tarn_config_send_window_size(40000);
  Endpoint a;
  for (int i = 0; i <= 65537; ++i) {
    a.send("x");
    if (i % 10000 == 9999 || i == 65533) a.input(datagram({una(static_cast<uint16_t>(i))}));
  }
  a.sent.clear();

  advance(60);

  EXPECT_EQ(a.sent_numbers(), (std::vector<int>{65534, 65535, 0, 1}));
}

TEST_F(RetransmissionTiming, RunsOnTheWorker) {
  Endpoint a;
  a.send("x");

  advance(60);

  ASSERT_EQ(a.sent.count(), 2u);
  EXPECT_NE(a.sent.last_thread(), std::this_thread::get_id());
}

TEST_F(RetransmissionTiming, EachReSendIsLogged) {
  Endpoint a;
  for (int i = 0; i < 3; ++i) a.send("x");
  const LogCapture log;

  advance(60);

  for (unsigned seq = 0; seq < 3; ++seq) {
    EXPECT_EQ(log.count(3, text("tarn %p resend seq %u", a.handle(), seq)), 1);
    EXPECT_EQ(log.count_containing(text("resend data size: 3 seq: %u func: ", seq)), 1);
  }
}

TEST_F(RetransmissionTiming, TheWindowsOwnLineIsThinnedOut) {
  tarn_config_send_window_size(300);
  Endpoint a;
  for (int i = 0; i < 250; ++i) a.send("x");
  const LogCapture log(3);

  advance(60);

  // The 1st to 4th, the 100th and the 200th.
  EXPECT_EQ(log.count_containing(" resend data size: 250 seq: "), 6);
  EXPECT_EQ(log.count_containing(text("tarn %p resend seq ", a.handle())), 250);
}

TEST_F(RetransmissionTiming, AReSendDoesNotRaiseTheActivity) {
  tarn_config_active_timeout(500);
  Endpoint a;
  a.send("x");

  advance_by_steps(600, 50);

  EXPECT_GT(a.errors.count(TARN_ERROR_INACTIVE), 0);
}

TEST_F(RetransmissionTiming, EndsWithTheSession) {
  Endpoint a;
  a.send("x");
  a.destroy();

  advance_by_steps(500, 30);

  EXPECT_EQ(a.sent.count(), 1u);
}

TEST_F(RetransmissionTiming, StopsWhileTheSessionIsOnlyStopped) {
  Endpoint a;
  a.send("x");
  WorkerHold hold;
  tarn_destroy(a.handle());
  clock_.advance_ms(60);

  hold.release();

  EXPECT_EQ(a.sent.count(), 1u);
}
