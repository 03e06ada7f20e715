// TARN_OPTION_KEEP_ALIVE_MS and TARN_OPTION_PEER_TIMEOUT_MS.
#include "tarn/control.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

class ControlSilence : public SessionFixture {
 protected:
  ControlSilence() { tarn_config_active_timeout(0xFFFFFFFF); }
  void set(TarnOption option, long long value) {
    ASSERT_EQ(tarn_set_option(a_.handle(), option, value), 0);
  }
  void hear() { a_.input(datagram({unreliable({'x'})})); }

  Endpoint a_;
};

}  // namespace

TEST_F(ControlSilence, OursIsBrokenByAHeaderAlone) {
  set(TARN_OPTION_KEEP_ALIVE_MS, 100);
  hear();
  advance_by_steps(99, 1);
  EXPECT_EQ(a_.sent.count(), 0u);
  advance(1);
  EXPECT_EQ(a_.sent.all(), (std::vector<Bytes>{{'$', 0}}));
  advance_by_steps(99, 1);
  EXPECT_EQ(a_.sent.count(), 1u);
  advance(1);
  EXPECT_EQ(a_.sent.count(), 2u);
}

TEST_F(ControlSilence, AndTheConversationIdIfThereIsOne) {
  tarn_set_conv(a_.handle(), 0x01020304);
  set(TARN_OPTION_KEEP_ALIVE_MS, 100);
  hear();
  advance(100);
  EXPECT_EQ(a_.sent.all(), (std::vector<Bytes>{{'$', 0, 0x1B, 0, 4, 1, 2, 3, 4}}));
}

TEST_F(ControlSilence, NotBeforeSomethingWasReceived) {
  set(TARN_OPTION_KEEP_ALIVE_MS, 100);
  advance_by_steps(1000);
  EXPECT_EQ(a_.sent.count(), 0u);
  hear();
  advance_by_steps(100);
  EXPECT_EQ(a_.sent.count(), 1u);
}

TEST_F(ControlSilence, WhatIsSentPutsItOff) {
  set(TARN_OPTION_KEEP_ALIVE_MS, 100);
  hear();
  for (int i = 0; i < 5; ++i) {
    advance_by_steps(90);
    a_.send_unreliable("x");
  }
  EXPECT_EQ(a_.sent.count(), 5u);
}

TEST_F(ControlSilence, AKeepAliveIsNoActivity) {
  tarn_config_active_timeout(300);
  set(TARN_OPTION_KEEP_ALIVE_MS, 100);
  hear();
  advance_by_steps(400);
  EXPECT_GE(a_.sent.count(), 3u);
  EXPECT_GT(a_.errors.count(TARN_ERROR_INACTIVE), 0);
}

TEST_F(ControlSilence, ThePeerTakesAKeepAliveWithoutAWord) {
  Endpoint peer;
  const LogCapture log(3);
  peer.input({'$', 0});
  peer.input({'$', 0, 0x1B, 0, 4, 1, 2, 3, 4});
  EXPECT_TRUE(lines_about(log, peer.handle()).empty());
  EXPECT_TRUE(peer.errors.all().empty());
}

TEST_F(ControlSilence, NoneAnyMoreWhenItIsSetTo0) {
  set(TARN_OPTION_KEEP_ALIVE_MS, 100);
  hear();
  set(TARN_OPTION_KEEP_ALIVE_MS, 0);
  advance_by_steps(500);
  EXPECT_EQ(a_.sent.count(), 0u);
}

TEST_F(ControlSilence, ThePeersIsToldOnceWhateverWeSend) {
  set(TARN_OPTION_PEER_TIMEOUT_MS, 200);
  for (int i = 0; i < 19; ++i) {
    advance(10);
    a_.send_unreliable("x");
  }
  EXPECT_EQ(a_.errors.count(TARN_ERROR_INACTIVE), 0);
  advance(10);
  EXPECT_EQ(a_.errors.count(TARN_ERROR_INACTIVE), 1);
  advance_by_steps(1000);
  EXPECT_EQ(a_.errors.count(TARN_ERROR_INACTIVE), 1);
}

TEST_F(ControlSilence, AndOnceMoreAfterItHasBeenHeard) {
  set(TARN_OPTION_PEER_TIMEOUT_MS, 200);
  advance_by_steps(150);
  hear();
  advance_by_steps(190);
  EXPECT_EQ(a_.errors.count(TARN_ERROR_INACTIVE), 0);
  advance(10);
  EXPECT_EQ(a_.errors.count(TARN_ERROR_INACTIVE), 1);
  hear();
  advance_by_steps(400);
  EXPECT_EQ(a_.errors.count(TARN_ERROR_INACTIVE), 2);
}

TEST_F(ControlSilence, AShorterTimeoutAppliesAtOnce) {
  set(TARN_OPTION_PEER_TIMEOUT_MS, 100000);
  advance_by_steps(50);
  set(TARN_OPTION_PEER_TIMEOUT_MS, 100);
  advance_by_steps(100);
  EXPECT_EQ(a_.errors.count(TARN_ERROR_INACTIVE), 1);
}

TEST_F(ControlSilence, ADestroyedSessionIsWatchedNoMore) {
  set(TARN_OPTION_KEEP_ALIVE_MS, 100);
  set(TARN_OPTION_PEER_TIMEOUT_MS, 100);
  hear();
  a_.destroy();
  advance_by_steps(500);
  EXPECT_EQ(a_.sent.count(), 0u);
  EXPECT_TRUE(a_.errors.all().empty());
}
