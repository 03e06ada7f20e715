// control.h in its corners: first called in the middle of something, with bytes that no honest peer
// sends, and with readers that stop at every message.
#include <algorithm>
#include <atomic>
#include <random>
#include <set>
#include <thread>

#include "tests/api/contract_kit.h"

using namespace tarn_test;

namespace {
class ContractCorners : public FeedbackFixture {};
}  // namespace

TEST_F(ContractCorners, TheFirstRefusalInsideADatagramIsToldOfItsAcknowledgement) {
  Endpoint a;
  for (int i = 0; i < 32; ++i) a.send("x");
  Hook writable;
  Hook hook;
  hook.does = [&] {
    tarn_set_writable_callback(a.handle(), Hook::on_writable, &writable);
    EXPECT_EQ(try_send(a.handle(), pattern(5)), -EAGAIN);
  };
  tarn_set_recv_unreliable_callback(a.handle(), Hook::on_data, &hook);
  a.input(datagram({unreliable(pattern(3)), una(31)}));
  advance_by_steps(60, 30);
  EXPECT_EQ(writable.runs, 1);
  EXPECT_EQ(stats_of(a.handle()).outstanding_segments, 0u);
  EXPECT_EQ(tarn_send_room(a.handle()), 32u * 1400);
}

TEST_F(ContractCorners, WhatIsOnItsWayOutAtTheFirstCallIsOutstanding) {
  Endpoint a;
  Hook hook;
  hook.does = [&] {
    if (hook.runs == 1) set_option(a.handle(), TARN_OPTION_KEEP_ALIVE_MS, 0);
  };
  tarn_set_output_callback(a.handle(), Hook::on_data, &hook);
  a.send(pattern(4000));
  EXPECT_EQ(stats_of(a.handle()).outstanding_segments, 3u);
  EXPECT_EQ(tarn_send_room(a.handle()), 29u * 1400);
  tarn_set_output_callback(a.handle(), DatagramRecorder::on_data, &a.sent);
  a.input(datagram({una(0)}));
  EXPECT_EQ(stats_of(a.handle()).outstanding_segments, 2u);
  advance_by_steps(120, 30);
  const std::vector<int> again = a.sent_numbers();
  EXPECT_EQ(std::set<int>(again.begin(), again.end()), (std::set<int>{1, 2}));
}

TEST_F(ContractCorners, TheFirstCallInsideADeliveryDeliversNothingInsideOfIt) {
  Endpoint a;
  int depth = 0;
  int deepest = 0;
  Hook hook;
  hook.does = [&] {
    deepest = std::max(deepest, ++depth);
    tarn_pause_receive(a.handle(), 1);
    tarn_pause_receive(a.handle(), 0);
    --depth;
  };
  tarn_set_recv_reliable_callback(a.handle(), Hook::on_data, &hook);
  for (uint16_t seq = 5; seq > 0; --seq) a.input(datagram({reliable(seq, pattern(3))}));
  a.input(datagram({reliable(0, pattern(3))}));
  EXPECT_EQ(hook.runs, 6);
  EXPECT_EQ(deepest, 1);
}

TEST_F(ContractCorners, TheFirstCallBesideADeliveryWaitsForItsEnd) {
  Endpoint a;
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  Hook hook;
  hook.does = [&] {
    most = std::max(most.load(), ++inside);
    if (hook.runs == 1) {
      std::thread other([&] {
        tarn_pause_receive(a.handle(), 1);
        tarn_pause_receive(a.handle(), 0);
      });
      other.join();
    }
    --inside;
  };
  tarn_set_recv_reliable_callback(a.handle(), Hook::on_data, &hook);
  for (uint16_t seq = 5; seq > 0; --seq) a.input(datagram({reliable(seq, pattern(3))}));
  a.input(datagram({reliable(0, pattern(3))}));
  EXPECT_EQ(hook.runs, 6);
  EXPECT_EQ(most, 1) << "message 0 was still being delivered";
}

TEST_F(ContractCorners, AnEndInsideADeliveryOfWhatWasWithheldIsTheLastOne) {
  Endpoint a;
  tarn_set_profile(a.handle(), TARN_PROFILE_BALANCED);
  Hook hook;
  hook.does = [&] {
    if (hook.runs == 1) tarn_pause_receive(a.handle(), 1);
    if (hook.runs == 2) a.destroy();
  };
  tarn_set_recv_reliable_callback(a.handle(), Hook::on_data, &hook);
  for (uint16_t seq = 4; seq > 0; --seq) a.input(datagram({reliable(seq, pattern(3))}));
  a.input(datagram({reliable(0, pattern(3))}));
  tarn_pause_receive(a.handle(), 0);
  EXPECT_EQ(hook.runs, 2);
}

TEST_F(ContractCorners, WhatCameBeforeTheFirstCallTakesNoRoom) {
  Endpoint a;
  for (uint16_t seq = 0; seq < 100; ++seq) a.input(datagram({reliable(seq, pattern(3))}));
  Hook hook;
  hook.does = [&] { tarn_pause_receive(a.handle(), 1); };
  tarn_set_recv_reliable_callback(a.handle(), Hook::on_data, &hook);
  a.input(datagram({reliable(100, pattern(3)), reliable(101, pattern(3))}));
  EXPECT_EQ(stats_of(a.handle()).buffered_segments, 1u);
  for (uint16_t seq = 102; seq < 133; ++seq) a.input(datagram({reliable(seq, pattern(3))}));
  EXPECT_TRUE(a.errors.all().empty()) << "the window is 32";
  EXPECT_EQ(stats_of(a.handle()).buffered_segments, 32u);
}

TEST_F(ContractCorners, AKeepAliveBeginsOnASessionThatHasBeenTalking) {
  Endpoint a;
  a.input(datagram({reliable(0, pattern(3))}));
  feedback(a);
  a.clear();
  set_option(a.handle(), TARN_OPTION_KEEP_ALIVE_MS, 100);
  advance_by_steps(350, 10);
  EXPECT_EQ(a.sent.count(), 3u);
}

TEST_F(ContractCorners, ASilenceThatLastsAlreadyIsToldAtOnce) {
  Endpoint a;
  stats_of(a.handle());
  a.input(datagram({reliable(0, pattern(3))}));
  advance_by_steps(400, 50);
  set_option(a.handle(), TARN_OPTION_PEER_TIMEOUT_MS, 300);
  advance_by_steps(20, 5);
  EXPECT_EQ(a.errors.count(TARN_ERROR_INACTIVE), 1);
  advance_by_steps(1000, 50);
  EXPECT_EQ(a.errors.count(TARN_ERROR_INACTIVE), 1);
}

TEST_F(ContractCorners, NothingIsDeliveredBehindAMessageThatWasTooLarge) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_MAX_MESSAGE, 30);
  a.input(datagram({reliable(2, pattern(5))}));
  a.input(datagram({reliable(1, pattern(20), kLast)}));
  a.input(datagram({reliable(0, pattern(20), kFirst)}));
  EXPECT_EQ(a.errors.all(), std::vector<int>{TARN_ERROR_MESSAGE_TOO_LARGE});
  EXPECT_EQ(a.reliable_received.count(), 0u) << "the stream has a hole in front of it";
}

TEST_F(ContractCorners, ARingOfOverflowingMessagesLeavesTheCountsRight) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 4);
  tarn_set_output_callback(a.handle(), nullptr, nullptr);
  for (int i = 0; i < 65536 + 50; ++i) a.send("x");
  EXPECT_EQ(stats_of(a.handle()).outstanding_segments, 4u);
  EXPECT_EQ(tarn_send_room(a.handle()), 0u);
  tarn_set_output_callback(a.handle(), DatagramRecorder::on_data, &a.sent);
  advance_by_steps(120, 30);
  const std::vector<int> again = a.sent_numbers();
  EXPECT_EQ(again.size(), 4u);
  a.input(datagram({ack(std::vector<uint16_t>(again.begin(), again.end()))}));
  EXPECT_EQ(stats_of(a.handle()).outstanding_segments, 0u);
  EXPECT_EQ(tarn_send_room(a.handle()), 4u * 1400);
}

TEST_F(ContractCorners, DatagramsKeepToTheirLimitWhateverThereIsToAcknowledge) {
  for (size_t len = 1380; len <= 1400; ++len) {
    Endpoint a;
    set_option(a.handle(), TARN_OPTION_RECV_WINDOW, 4096);
    tarn_set_conv(a.handle(), 5);
    for (uint16_t seq = 2; seq < 600; ++seq) a.input(datagram({reliable(seq, pattern(1))}));
    a.input(datagram({reliable(0, pattern(1))}));
    EXPECT_EQ(try_send(a.handle(), pattern(len)), 0);
    EXPECT_LE(a.sent.last().size(), 1414u) << len;
    a.input(datagram({reliable(0, pattern(1))}));
    a.send_unreliable(pattern(len));
    EXPECT_LE(a.sent.last().size(), 1414u) << len << " unreliable";
  }
}

// A reader that pauses after each message bounds what is kept for it.
TEST_F(ContractCorners, PausingInsideEachDeliveryKeepsNoMoreThanTheWindow) {
  constexpr unsigned kParts = 8;
  constexpr unsigned kWindow = 16;
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_RECV_WINDOW, kWindow);
  Hook hook;
  hook.does = [&] { tarn_pause_receive(a.handle(), 1); };
  tarn_set_recv_reliable_callback(a.handle(), Hook::on_data, &hook);
  uint16_t next = 0;
  unsigned most = 0;
  for (int round = 0; round < 40; ++round) {
    for (;;) {
      const int refused = a.errors.count(TARN_ERROR_RECV_REJECTED);
      const unsigned part = next % kParts;
      a.input(datagram({reliable(next, pattern(10),
                                 part == 0            ? kFirst
                                 : part == kParts - 1 ? kLast
                                                      : kMiddle)}));
      if (a.errors.count(TARN_ERROR_RECV_REJECTED) > refused) break;
      ++next;
    }
    most = std::max(most, next - static_cast<unsigned>(hook.runs) * kParts);
    tarn_pause_receive(a.handle(), 0);
  }
  EXPECT_LE(most, kWindow + kParts) << "segments taken and not delivered";
}

TEST_F(ContractCorners, AWaitingDestroyWaitsForWhatIsQueuedToo) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_MTU, 10);
  set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 2);
  set_option(a.handle(), TARN_OPTION_SEND_QUEUE, 1000);
  EXPECT_EQ(try_send(a.handle(), pattern(200)), 0);
  // The window is empty for a moment in each acknowledgement; the waiter looks just then.
  static std::atomic<bool> waiting, looked, over;
  waiting = looked = over = false;
  std::thread waiter([&] {
    waiting = true;
    tarn_wait_destroy(a.handle(), 60000);
    over = true;
  });
  wait_until([] { return waiting.load(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  tarn_set_log_callback2(4, [](int, const char* line) {
    if (strstr(line, "got una") != nullptr && strstr(line, "size 0") != nullptr && !looked) {
      looked = true;
      wait_until([] { return over.load(); }, 400);
    }
  });
  a.input(datagram({una(1)}));
  tarn_set_log_callback2(0, nullptr);
  for (uint16_t i = 3; i < 20; i += 2) a.input(datagram({una(i)}));
  waiter.join();
  EXPECT_EQ(messages_in(a.sent.all()), std::vector<Bytes>{pattern(200)});
  EXPECT_TRUE(wait_until_gone(a.handle()));
  settle();
  a.forget();
}

TEST_F(ContractCorners, TheMtuIsFixedByTheFirstSendOfAnyKind) {
  const std::vector<std::function<void(Endpoint&)>> sends = {
      [](Endpoint& a) { a.send("x"); },
      [](Endpoint& a) { EXPECT_EQ(try_send(a.handle(), pattern(1)), 0); },
      [](Endpoint& a) { a.send_unreliable("x"); },
  };
  for (size_t i = 0; i < sends.size(); ++i) {
    for (const bool controlled : {false, true}) {
      Endpoint a;
      if (controlled) set_option(a.handle(), TARN_OPTION_MTU, 500);
      sends[i](a);
      EXPECT_EQ(tarn_set_option(a.handle(), TARN_OPTION_MTU, 600), -EBUSY) << i << controlled;
      EXPECT_EQ(option_of(a.handle(), TARN_OPTION_MTU), controlled ? 500 : 1400) << i;
    }
  }
}

TEST_F(ContractCorners, AMessageThatWasTriedKeepsTheProfileAsWell) {
  Endpoint a;
  EXPECT_EQ(tarn_set_profile(a.handle(), TARN_PROFILE_BALANCED), 0);
  EXPECT_EQ(try_send(a.handle(), pattern(5)), 0);
  EXPECT_EQ(tarn_set_profile(a.handle(), TARN_PROFILE_PLAIN), -EBUSY);
}

TEST_F(ContractCorners, AMessageOfExactlyTheLimitArrivesAndOneByteMoreDoesNot) {
  for (const bool backwards : {false, true}) {
    Endpoint a;
    set_option(a.handle(), TARN_OPTION_MAX_MESSAGE, 30);
    const auto send = [&](uint16_t from, size_t last) {
      std::vector<Bytes> parts = {datagram({reliable(from, pattern(12, 1), kFirst)}),
                                  datagram({reliable(from + 1, pattern(12, 2), kMiddle)}),
                                  datagram({reliable(from + 2, pattern(last, 3), kLast)})};
      if (backwards) std::reverse(parts.begin(), parts.end());
      for (const Bytes& part : parts) a.input(part);
    };
    send(0, 6);
    EXPECT_EQ(a.reliable_received.count(), 1u);
    EXPECT_TRUE(a.errors.all().empty());
    a.input(datagram({reliable(3, pattern(30))}));
    EXPECT_EQ(a.reliable_received.count(), 2u);
    feedback(a);
    send(4, 7);
    EXPECT_EQ(a.reliable_received.count(), 2u);
    EXPECT_EQ(a.errors.all(), std::vector<int>{TARN_ERROR_MESSAGE_TOO_LARGE}) << backwards;
    const Feedback last = feedback(a);
    // What came early had been acknowledged before.
    for (const int told : last.unas) EXPECT_LT(told, backwards ? 7 : 6);

    // From here on nothing reliable is taken, and nothing of it acknowledged.
    a.clear();
    for (uint16_t seq = 0; seq < 20; ++seq) a.input(datagram({reliable(seq, pattern(1))}));
    const Feedback told = feedback(a);
    EXPECT_TRUE(told.acks.empty());
    EXPECT_TRUE(told.unas.empty());
    EXPECT_TRUE(a.errors.all().empty()) << "once";
    EXPECT_EQ(a.reliable_received.count(), 0u);
    // The rest works.
    a.input(datagram({unreliable(pattern(100))}));
    EXPECT_EQ(a.unreliable_received.count(), 1u);
    EXPECT_EQ(try_send(a.handle(), pattern(10)), 0);
    a.input(datagram({una(0)}));
    EXPECT_EQ(stats_of(a.handle()).outstanding_segments, 0u);
  }
}

TEST_F(ContractCorners, TheLimitHoldsForWhatWasKeptDuringAPause) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_MAX_MESSAGE, 30);
  tarn_pause_receive(a.handle(), 1);
  a.input(datagram({reliable(0, pattern(5))}));
  a.input(datagram({reliable(1, pattern(20), kFirst)}));
  a.input(datagram({reliable(2, pattern(11), kLast)}));
  a.input(datagram({reliable(3, pattern(5))}));
  tarn_pause_receive(a.handle(), 0);
  EXPECT_EQ(a.reliable_received.all(), std::vector<Bytes>{pattern(5)});
  EXPECT_EQ(a.errors.count(TARN_ERROR_MESSAGE_TOO_LARGE), 1);
}

TEST_F(ContractCorners, BeforeTheFirstInOrderSegmentToo) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_RECV_WINDOW, 4096);
  far_number(a, 8191, true);
  far_number(a, 8193, false);
  far_number(a, 40000, false);
  far_number(a, 65535, false);
}

TEST_F(ContractCorners, WithoutAnOptionAnAcknowledgementFromBeyondReleasesAsEver) {
  Endpoint plain;
  Endpoint a;
  stats_of(a.handle());
  for (Endpoint* each : {&plain, &a}) {
    for (int i = 0; i < 5; ++i) each->send("x");
    each->input(datagram({una(1000)}));
    each->sent.clear();
  }
  advance_by_steps(300, 30);
  EXPECT_EQ(plain.sent.count(), 0u);
  EXPECT_EQ(a.sent.count(), 0u);
  EXPECT_EQ(stats_of(a.handle()).outstanding_segments, 0u);
  EXPECT_EQ(tarn_send_room(a.handle()), 32u * 1400);
}

// What a session does that is only asked about is what a session does that nobody asks about.
TEST_F(ContractCorners, ASessionThatIsOnlyWatchedBehavesAsEver) {
  for (unsigned seed = 1; seed < 12; ++seed) {
    SCOPED_TRACE(seed);
    Endpoint plain;
    Endpoint watched;
    stats_of(watched.handle());
    std::mt19937 random(seed);
    for (int i = 0; i < 150; ++i) {
      const unsigned dice = random();
      const Bytes message = pattern(1 + dice % 4000, dice);
      const Bytes input =
          datagram({unreliable(pattern(5, dice)), una(static_cast<uint16_t>(dice % 400)),
                    ack({static_cast<uint16_t>(dice % 100), static_cast<uint16_t>(dice % 70000)}),
                    reliable(static_cast<uint16_t>(dice % 60 + i / 2), pattern(5, dice)),
                    dice % 50 == 0 ? bye() : Bytes(), dice % 40 == 0 ? conv(dice) : Bytes()});
      for (Endpoint* each : {&plain, &watched}) {
        switch (dice % 5) {
          case 0:
            each->send(message);
            break;
          case 1:
            each->send_unreliable(message);
            break;
          default:
            each->input(input);
            break;
        }
      }
      stats_of(watched.handle());
      tarn_send_room(watched.handle());
      if (dice % 7 == 0) advance(10 * (dice % 9));
    }
    EXPECT_EQ(plain.sent.all(), watched.sent.all());
    EXPECT_EQ(plain.errors.all(), watched.errors.all());
    EXPECT_EQ(plain.reliable_received.all(), watched.reliable_received.all());
    EXPECT_EQ(plain.unreliable_received.all(), watched.unreliable_received.all());
    if (HasFailure()) return;
  }
}
