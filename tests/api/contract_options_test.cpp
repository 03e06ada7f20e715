// control.h: what options take, refuse and read as, and what every call says to a bad argument.
#include "tests/api/contract_kit.h"

using namespace tarn_test;

namespace {

class ContractOptions : public SessionFixture {};

}  // namespace

TEST_F(ContractOptions, AWindowOnlyFollowsTheConfigurationUntilItIsSet) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_RECV_WINDOW, 32);
  tarn_config_send_window_size(3);
  EXPECT_EQ(tarn_send_room(a.handle()), 3u * 1400);
  set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 32);
  tarn_config_send_window_size(4);
  EXPECT_EQ(tarn_send_room(a.handle()), 32u * 1400);
}

TEST_F(ContractOptions, ALengthBeyondEveryLimitIsTooLongAndNotRead) {
  Endpoint a;
  for (const size_t len : {static_cast<size_t>(-1), static_cast<size_t>(-1400),
                           static_cast<size_t>(1) << 63, (static_cast<size_t>(1) << 32) + 1}) {
    EXPECT_EQ(tarn_try_send_reliable(a.handle(), "x", len), -EMSGSIZE) << len;
  }
  set_option(a.handle(), TARN_OPTION_SEND_QUEUE, 1 << 20);
  EXPECT_EQ(tarn_try_send_reliable(a.handle(), "x", static_cast<size_t>(-1)), -EMSGSIZE);
}

TEST_F(ContractOptions, ARefusedMessageDoesNotFixTheMtu) {
  Endpoint a;
  EXPECT_EQ(tarn_try_send_reliable(a.handle(), "", 0), -EINVAL);
  EXPECT_EQ(try_send(a.handle(), pattern(32 * 1400 + 1)), -EMSGSIZE);
  set_option(a.handle(), TARN_OPTION_MTU, 10);
  EXPECT_EQ(try_send(a.handle(), pattern(25)), 0);
  const std::vector<WireSegment> sent = segments_of_type(a.sent.all(), kReliable);
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[0].payload().size(), 10u);
  EXPECT_EQ(sent[2].payload().size(), 5u);
}

TEST_F(ContractOptions, AProfileCanBeTakenBackUntilSomethingWasSent) {
  for (const TarnProfile profile :
       {TARN_PROFILE_BALANCED, TARN_PROFILE_REALTIME, TARN_PROFILE_BULK}) {
    Endpoint a;
    Endpoint plain;
    EXPECT_EQ(tarn_set_profile(a.handle(), profile), 0);
    EXPECT_GT(option_of(a.handle(), TARN_OPTION_SEND_QUEUE), 0);
    EXPECT_EQ(option_of(a.handle(), TARN_OPTION_PEER_WINDOW), -1);
    EXPECT_EQ(tarn_set_profile(a.handle(), TARN_PROFILE_PLAIN), 0);
    for (int option = TARN_OPTION_MTU; option <= TARN_OPTION_COALESCE_MS; ++option) {
      EXPECT_EQ(option_of(a.handle(), static_cast<TarnOption>(option)),
                option_of(plain.handle(), static_cast<TarnOption>(option)))
          << option << " after profile " << profile;
    }
    EXPECT_EQ(tarn_set_profile(a.handle(), profile), 0);
    a.send("x");
    const long long queue = option_of(a.handle(), TARN_OPTION_SEND_QUEUE);
    EXPECT_EQ(tarn_set_profile(a.handle(), TARN_PROFILE_PLAIN), -EBUSY);
    EXPECT_EQ(option_of(a.handle(), TARN_OPTION_SEND_QUEUE), queue);
    EXPECT_EQ(tarn_set_profile(a.handle(), TARN_PROFILE_BALANCED), 0);
    EXPECT_EQ(tarn_set_profile(a.handle(), TARN_PROFILE_PLAIN), -EBUSY);
  }
}
