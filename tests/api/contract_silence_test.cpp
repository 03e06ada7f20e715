// control.h: keep-alive, the peer's silence, and a default session that nothing of it touches.
#include "tests/api/contract_kit.h"

using namespace tarn_test;

namespace {
class ContractSilence : public SessionFixture {};
const Bytes kHeader = {'$', 0};
}  // namespace

TEST_F(ContractSilence, APeerThatNeverSpokeIsSilentToo) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_ACTIVE_TIMEOUT_MS, 2147483647);
  set_option(a.handle(), TARN_OPTION_PEER_TIMEOUT_MS, 500);
  for (int i = 0; i < 40; ++i) {
    a.send_unreliable("x");
    advance(50);
  }
  EXPECT_EQ(a.errors.all(), std::vector<int>{TARN_ERROR_INACTIVE});
}

TEST_F(ContractSilence, APeerTimeoutWorksAcrossTheWrapOfTheTick) {
  clock_.set_ms((clock_.now_ms() & ~0xFFFFFFFFull) + 0x1FFFFFFFFull - 300);
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_ACTIVE_TIMEOUT_MS, 2147483647);
  set_option(a.handle(), TARN_OPTION_PEER_TIMEOUT_MS, 500);
  a.input(datagram({unreliable(pattern(3))}));
  EXPECT_EQ(stats_of(a.handle()).since_received_ms, 0u);
  advance_by_steps(450, 50);
  EXPECT_EQ(stats_of(a.handle()).since_received_ms, 450u);
  EXPECT_TRUE(a.errors.all().empty());
  advance_by_steps(300, 50);
  EXPECT_EQ(a.errors.all(), std::vector<int>{TARN_ERROR_INACTIVE});
}

TEST_F(ContractSilence, TheDurationsHoldWhateverTheCycle) {
  tarn_config_rtx_timeout(2000);
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_ACTIVE_TIMEOUT_MS, 2147483647);
  set_option(a.handle(), TARN_OPTION_KEEP_ALIVE_MS, 100);
  set_option(a.handle(), TARN_OPTION_PEER_TIMEOUT_MS, 300);
  a.input(datagram({unreliable(pattern(3))}));
  advance_by_steps(500, 50);
  EXPECT_GE(a.sent.count(), 3u);
  EXPECT_EQ(a.errors.count(TARN_ERROR_INACTIVE), 1);
}
