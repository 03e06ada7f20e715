// Settings that no other file looks at, and odd values of the others.
#include "tests/support/session_fixture.h"

using namespace tarn_test;

using Config = SessionFixture;

namespace {

// The setter as a caller with an integer prototype sees it.
void set_thread_safe_as_int(int value) {
  reinterpret_cast<void (*)(int)>(reinterpret_cast<void (*)()>(tarn_config_thread_safe))(value);
}

void converse(Endpoint& a) {
  a.send("x");
  a.send_unreliable("y");
  a.input(datagram({reliable(0, {1}), unreliable({2}), bye()}));
  EXPECT_EQ(a.sent.count(), 2u);
  EXPECT_EQ(a.reliable_received.count(), 1u);
  EXPECT_EQ(a.unreliable_received.count(), 1u);
  EXPECT_EQ(a.errors.count(TARN_ERROR_BYE), 1);
}

}  // namespace

TEST_F(Config, NoSetterLogs) {
  settle();  // what the worker logs when it starts is not counted
  const LogCapture log;

  tarn_config_mtu(0);
  tarn_config_rtx_timeout(0xFFFFFFFF);
  tarn_config_active_timeout(0);
  tarn_config_send_window_size(0);
  tarn_config_recv_window_size(0xFFFFFFFF);
  tarn_config_thread_safe(false);

  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Config, ASessionWorksWithoutTheLockAsWithIt) {
  tarn_config_thread_safe(false);
  Endpoint without;
  converse(without);

  tarn_config_thread_safe(true);
  Endpoint with;
  converse(with);
}

TEST_F(Config, AStoppedSessionIsSilentWithoutTheLockToo) {
  tarn_config_thread_safe(false);
  Endpoint a;
  const WorkerHold hold;
  tarn_destroy(a.handle());

  a.send("x");
  a.send_unreliable("x");
  a.input(datagram({reliable(0, {1}), unreliable({2}), bye()}));

  EXPECT_EQ(a.sent.count(), 0u);
  EXPECT_EQ(a.unreliable_received.count(), 0u);
  EXPECT_TRUE(a.errors.all().empty());
}

TEST_F(Config, ThreadSafeTakesAnyInteger) {
  for (const int value : {0, 1, 2, 3, -1, 255, 256, 1 << 30}) {
    set_thread_safe_as_int(value);
    Endpoint a;
    converse(a);
  }
}

TEST_F(Config, RtxTimeout0RunsTheCycleOnce) {
  tarn_config_rtx_timeout(0);
  Endpoint a;
  a.input(datagram({reliable(0, {1})}));

  // Due after 1 ms, and run by the first turn that comes later than that.
  advance(1);
  EXPECT_EQ(a.sent.count(), 0u);
  advance(1);
  EXPECT_EQ(a.sent.count(), 1u);
  a.input(datagram({reliable(1, {1})}));
  advance_by_steps(1000, 50);

  EXPECT_EQ(a.sent.count(), 1u);
}

TEST_F(Config, RtxTimeoutAboveTheSignedRangeRunsTheCycleOnce) {
  for (const unsigned value : {0x80000000u, 0xFFFFFFFFu}) {
    tarn_config_rtx_timeout(value);
    Endpoint a;
    a.input(datagram({reliable(0, {1})}));

    advance(2);
    EXPECT_EQ(a.sent.count(), 1u) << value;
    a.input(datagram({reliable(1, {1})}));
    advance_by_steps(1000, 50);

    EXPECT_EQ(a.sent.count(), 1u) << value;
  }
}

TEST_F(Config, ReSendsGoOnWithoutACycle) {
  tarn_config_rtx_timeout(0);
  Endpoint a;
  a.send("x");

  advance(60);
  advance(120);

  EXPECT_EQ(a.sent.count(), 3u);
}

TEST_F(Config, AHugeRtxTimeoutIsHarmless) {
  tarn_config_rtx_timeout(0x7FFFFFFF);
  Endpoint a;
  a.input(datagram({reliable(0, {1})}));

  advance(1000);

  EXPECT_EQ(a.sent.count(), 0u);
  EXPECT_LE(tarn_check_update_ms(), 30);
}

TEST_F(Config, RtxTimeout1IsAMillisecond) {
  tarn_config_rtx_timeout(1);
  Endpoint a;
  for (int n = 0; n < 5; ++n) {
    a.input(datagram({reliable(static_cast<uint16_t>(n), {1})}));
    advance(1);
  }
  EXPECT_EQ(a.sent.count(), 5u);
}

TEST_F(Config, SendWindowBeyond65535IsCountedIn32Bits) {
  tarn_config_send_window_size(0xFFFFFFFF);
  Endpoint a;

  for (int i = 0; i < 70000; ++i) a.send("x");

  EXPECT_TRUE(a.errors.all().empty());
}
