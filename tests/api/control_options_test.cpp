// tarn_set_option, tarn_get_option, tarn_set_profile: what is taken, and what follows from it.
#include <errno.h>

#include "tarn/control.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

constexpr long long kMiB = 1024 * 1024;

class ControlOptions : public SessionFixture {
 protected:
  int set(TarnOption option, long long value) {
    return tarn_set_option(a_.handle(), option, value);
  }
  long long get(TarnOption option) {
    long long value = -99;
    EXPECT_EQ(tarn_get_option(a_.handle(), option, &value), 0) << option;
    return value;
  }

  Endpoint a_;
};

struct Row {
  TarnOption option;
  long long least;
  long long most;
};
constexpr Row kRows[] = {
    {TARN_OPTION_MTU, 1, 65533},
    {TARN_OPTION_ACTIVE_TIMEOUT_MS, 0, 0xFFFFFFFFLL},
    {TARN_OPTION_SEND_WINDOW, 1, 4096},
    {TARN_OPTION_RECV_WINDOW, 1, 4096},
    {TARN_OPTION_SEND_QUEUE, 0, 1LL << 40},
    {TARN_OPTION_PEER_WINDOW, -1, 4096},
    {TARN_OPTION_MAX_MESSAGE, 0, 1LL << 40},
    {TARN_OPTION_KEEP_ALIVE_MS, 0, 0x7FFFFFFF},
    {TARN_OPTION_PEER_TIMEOUT_MS, 0, 0x7FFFFFFF},
    {TARN_OPTION_STRICT_CONV, 0, 1},
    {TARN_OPTION_ACK_DELAY_MS, -1, -1},
    {TARN_OPTION_ACK_EVERY, 0, 0},
    {TARN_OPTION_RESEND, 0, 0},
    {TARN_OPTION_CARRY, 0, 0},
    {TARN_OPTION_PACING, 0, 0},
    {TARN_OPTION_COALESCE_MS, 0, 0},
};

}  // namespace

TEST_F(ControlOptions, TakeTheirRangeAndNothingElse) {
  for (const Row& row : kRows) {
    for (const long long value : {row.least, row.most}) {
      EXPECT_EQ(set(row.option, value), 0) << row.option << " = " << value;
      EXPECT_EQ(get(row.option), value) << row.option;
    }
    for (const long long value : {row.least - 1, row.most + 1, -(1LL << 60), 1LL << 60}) {
      EXPECT_EQ(set(row.option, value), -EINVAL) << row.option << " = " << value;
    }
    EXPECT_EQ(get(row.option), row.most) << row.option;
  }
}

TEST_F(ControlOptions, OthersDoNotExist) {
  long long value = 0;
  for (const int option : {0, -1, 17, 1000}) {
    EXPECT_EQ(set(static_cast<TarnOption>(option), 0), -EINVAL) << option;
    EXPECT_EQ(tarn_get_option(a_.handle(), static_cast<TarnOption>(option), &value), -EINVAL);
  }
  EXPECT_EQ(tarn_get_option(a_.handle(), TARN_OPTION_MTU, nullptr), -EINVAL);
}

TEST_F(ControlOptions, NeverSetReadAsTheProcesssOrAsNone) {
  tarn_config_mtu(700);
  tarn_config_active_timeout(4000);
  tarn_config_send_window_size(5);
  tarn_config_recv_window_size(6);
  for (const Row& row : kRows) {
    const long long expected = row.option == TARN_OPTION_MTU                 ? 700
                               : row.option == TARN_OPTION_ACTIVE_TIMEOUT_MS ? 4000
                               : row.option == TARN_OPTION_SEND_WINDOW       ? 5
                               : row.option == TARN_OPTION_RECV_WINDOW       ? 6
                               : row.option == TARN_OPTION_ACK_DELAY_MS      ? -1
                                                                             : 0;
    EXPECT_EQ(get(row.option), expected) << row.option;
  }
}

TEST_F(ControlOptions, ABadHandleIsNamedInOneLine) {
  int not_a_session = 0;
  long long value = 0;
  TarnStats stats;
  struct Call {
    const char* name;
    std::function<int()> run;
  };
  void* const bad = &not_a_session;
  const Call calls[] = {
      {"tarn_set_option", [&] { return tarn_set_option(bad, TARN_OPTION_MTU, 1); }},
      {"tarn_get_option", [&] { return tarn_get_option(bad, TARN_OPTION_MTU, &value); }},
      {"tarn_set_profile", [&] { return tarn_set_profile(bad, TARN_PROFILE_BULK); }},
      {"tarn_try_send_reliable", [&] { return tarn_try_send_reliable(bad, "x", 1); }},
      {"tarn_set_writable_callback",
       [&] { return tarn_set_writable_callback(bad, nullptr, nullptr); }},
      {"tarn_pause_receive", [&] { return tarn_pause_receive(bad, 1); }},
      {"tarn_get_stats", [&] { return tarn_get_stats(bad, &stats, sizeof stats); }},
      {"tarn_send_room", [&] { return tarn_send_room(bad) == 0 ? -EBADF : 0; }},
  };
  for (const Call& call : calls) {
    const LogCapture log(2);
    EXPECT_EQ(call.run(), -EBADF) << call.name;
    ASSERT_EQ(log.lines().size(), 1u) << call.name;
    EXPECT_EQ(log.lines()[0].level, 2);
    EXPECT_EQ(log.lines()[0].text, text("%s fail,bad tarn %p", call.name, bad));
  }
}

TEST_F(ControlOptions, AnEndedSessionSaysSo) {
  const WorkerHold hold;
  tarn_destroy(a_.handle());
  long long value = 0;
  TarnStats stats;
  EXPECT_EQ(set(TARN_OPTION_SEND_QUEUE, 1), -ESHUTDOWN);
  EXPECT_EQ(tarn_get_option(a_.handle(), TARN_OPTION_SEND_QUEUE, &value), -ESHUTDOWN);
  EXPECT_EQ(tarn_set_profile(a_.handle(), TARN_PROFILE_BULK), -ESHUTDOWN);
  EXPECT_EQ(tarn_try_send_reliable(a_.handle(), "x", 1), -ESHUTDOWN);
  EXPECT_EQ(tarn_set_writable_callback(a_.handle(), nullptr, nullptr), -ESHUTDOWN);
  EXPECT_EQ(tarn_pause_receive(a_.handle(), 1), -ESHUTDOWN);
  EXPECT_EQ(tarn_get_stats(a_.handle(), &stats, sizeof stats), -ESHUTDOWN);
  EXPECT_EQ(tarn_send_room(a_.handle()), 0u);
}

TEST_F(ControlOptions, TheMtuIsFixedByTheFirstMessage) {
  EXPECT_EQ(set(TARN_OPTION_MTU, 3), 0);
  a_.send("abcdefg");
  const auto segments = segments_of_type(a_.sent.all(), kReliable);
  ASSERT_EQ(segments.size(), 3u);
  EXPECT_EQ(segments[0].payload(), bytes_of("abc"));
  EXPECT_EQ(set(TARN_OPTION_MTU, 3), -EBUSY);
}

TEST_F(ControlOptions, TheMtuIsFixedByAMessageOfAnyKindBeforeTheFirstCall) {
  for (int kind = 0; kind < 3; ++kind) {
    Endpoint end;
    char place[100] = {};
    if (kind == 0) end.send("x");
    if (kind == 1) end.send_unreliable("x");
    if (kind == 2) tarn_send_unreliable_nocp(end.handle(), place, 10);
    EXPECT_EQ(tarn_set_option(end.handle(), TARN_OPTION_MTU, 500), -EBUSY) << kind;
  }
}

TEST_F(ControlOptions, AcknowledgingIsNoMessage) {
  a_.input(datagram({reliable(0, {'x'})}));
  advance(60);
  ASSERT_EQ(a_.sent.count(), 1u);
  EXPECT_EQ(set(TARN_OPTION_MTU, 500), 0);
}

TEST_F(ControlOptions, OnlyTheSessionsOwnTimeoutIsSet) {
  tarn_config_active_timeout(1000);
  Endpoint b;
  set(TARN_OPTION_ACTIVE_TIMEOUT_MS, 300);
  advance_by_steps(400);
  EXPECT_GT(a_.errors.count(TARN_ERROR_INACTIVE), 0);
  EXPECT_EQ(b.errors.count(TARN_ERROR_INACTIVE), 0);
  tarn_config_active_timeout(100);
  advance_by_steps(100);
  EXPECT_GT(b.errors.count(TARN_ERROR_INACTIVE), 0) << "it follows the process";
}

TEST_F(ControlOptions, TheReceiveWindowIsTheSessionsOwn) {
  set(TARN_OPTION_RECV_WINDOW, 2);
  for (uint16_t seq = 1; seq <= 3; ++seq) a_.input(datagram({reliable(seq, {'x'})}));
  EXPECT_EQ(a_.errors.count(TARN_ERROR_RECV_REJECTED), 1);
  tarn_config_recv_window_size(3);
  a_.input(datagram({reliable(3, {'x'})}));
  EXPECT_EQ(a_.errors.count(TARN_ERROR_RECV_REJECTED), 2);
}

TEST_F(ControlOptions, ProfilesAreSetsOfOptions) {
  struct Expected {
    TarnProfile profile;
    long long queue;
    long long window;
  };
  tarn_config_active_timeout(7000);
  for (const Expected& row : {Expected{TARN_PROFILE_BALANCED, kMiB, 256},
                              Expected{TARN_PROFILE_REALTIME, kMiB, 256},
                              Expected{TARN_PROFILE_BULK, 8 * kMiB, 1024}}) {
    EXPECT_EQ(tarn_set_profile(a_.handle(), row.profile), 0);
    EXPECT_EQ(get(TARN_OPTION_SEND_QUEUE), row.queue);
    EXPECT_EQ(get(TARN_OPTION_SEND_WINDOW), row.window);
    EXPECT_EQ(get(TARN_OPTION_RECV_WINDOW), row.window);
    EXPECT_EQ(get(TARN_OPTION_PEER_WINDOW), -1);
    EXPECT_EQ(get(TARN_OPTION_MAX_MESSAGE), 64 * kMiB);
    EXPECT_EQ(get(TARN_OPTION_PEER_TIMEOUT_MS), 7000);
  }
  EXPECT_EQ(tarn_set_profile(a_.handle(), static_cast<TarnProfile>(4)), -EINVAL);
  EXPECT_EQ(tarn_set_profile(a_.handle(), static_cast<TarnProfile>(-1)), -EINVAL);
}

TEST_F(ControlOptions, PlainTakesThemBackUntilAMessageWasSent) {
  EXPECT_EQ(tarn_set_profile(a_.handle(), TARN_PROFILE_BULK), 0);
  EXPECT_EQ(tarn_set_profile(a_.handle(), TARN_PROFILE_PLAIN), 0);
  EXPECT_EQ(get(TARN_OPTION_SEND_QUEUE), 0);
  EXPECT_EQ(get(TARN_OPTION_SEND_WINDOW), 32);
  EXPECT_EQ(tarn_set_profile(a_.handle(), TARN_PROFILE_BULK), 0);
  a_.send("x");
  EXPECT_EQ(tarn_set_profile(a_.handle(), TARN_PROFILE_PLAIN), -EBUSY);
  EXPECT_EQ(get(TARN_OPTION_SEND_QUEUE), 8 * kMiB);
}

TEST_F(ControlOptions, PlainWithoutAnotherOneBeforeIsNoChange) {
  a_.send("x");
  EXPECT_EQ(tarn_set_profile(a_.handle(), TARN_PROFILE_PLAIN), 0);
}
