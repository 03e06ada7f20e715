// tarn_init and tarn_fini, and what needs the first.
#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

using Lifecycle = SessionFixture;

TEST_F(Lifecycle, InitIsLoggedEachTime) {
  const LogCapture log;

  tarn_init();
  tarn_init();

  EXPECT_EQ(log.count(3, "tarn init"), 2);
}

TEST_F(Lifecycle, ASecondInitStartsNoSecondThread) {
  const LogCapture log;
  settle();
  const int started = log.count(4, "thread start");

  tarn_init();
  settle();

  EXPECT_EQ(log.count(4, "thread start"), started);
}

TEST_F(Lifecycle, ASecondInitKeepsTheTimers) {
  Endpoint a;
  a.send("x");

  tarn_init();
  advance(60);

  EXPECT_EQ(a.sent.count(), 2u);
}

TEST_F(Lifecycle, FiniIsLoggedAndEverythingGoesOn) {
  Endpoint a;
  a.send("x");
  const LogCapture log;

  for (int i = 0; i < 1000; ++i) tarn_fini();

  EXPECT_EQ(log.count(3, "tarn fini"), 1000);
  advance(60);
  EXPECT_EQ(a.sent.count(), 2u);
  EXPECT_EQ(log.count(4, "thread end"), 0);
  Endpoint b;
  b.send("y");
  advance(60);
  EXPECT_EQ(b.sent.count(), 2u);
}

TEST_F(Lifecycle, FiniWhileTheWorkerTurnsDoesNotEndIt) {
  Endpoint a;
  std::atomic<bool> done{false};
  std::thread finisher([&] {
    while (!done) tarn_fini();
  });

  for (int i = 0; i < 200; ++i) settle();
  done = true;
  finisher.join();
  a.send("x");
  advance(60);

  EXPECT_EQ(a.sent.count(), 2u);
}

// Each of these runs in a fresh process, in which nothing has called tarn_init().
class BeforeInitDeathTest : public ::testing::Test {
 protected:
  BeforeInitDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(BeforeInitDeathTest, CreateAborts) { EXPECT_DEATH(tarn_create(), "0L != px"); }

TEST_F(BeforeInitDeathTest, CheckUpdateMsAborts) {
  EXPECT_DEATH(tarn_check_update_ms(), "0L != px");
}

TEST_F(BeforeInitDeathTest, UpdateAborts) { EXPECT_DEATH(tarn_update(), "0L != px"); }

namespace {

// Everything that needs no worker. Ends the process with 0 when it has come through.
void use_what_needs_no_worker() {
  const char* version = nullptr;
  char bytes[] = {'$', 0, 0x07, 0x00, 0x01, 'x'};
  tarn_version(&version);
  tarn_config_mtu(10);
  tarn_set_log_callback(0, nullptr);
  tarn_input(nullptr, bytes, sizeof bytes);
  tarn_destroy(bytes);
  tarn_send_kcp(bytes, bytes, sizeof bytes);
  tarn_fini();
  _exit(tarn_check_packet(bytes, sizeof bytes) == 1 ? 0 : 1);
}

}  // namespace

TEST_F(BeforeInitDeathTest, TheRestWorks) {
  EXPECT_EXIT(use_what_needs_no_worker(), ::testing::ExitedWithCode(0), "");
}
