// control.h: every counter against what a recorder beside the session has seen, and a session on
// which nothing is called beside one that knows the header.
#include <deque>
#include <random>
#include <set>

#include "tests/api/contract_kit.h"

using namespace tarn_test;

namespace {

// One end and all that passes it. The path to the other end loses, repeats and reorders.
struct Witness {
  Endpoint end;
  std::vector<Bytes> fed;
  uint64_t accepted = 0, accepted_bytes = 0, unreliable = 0;
  size_t taken = 0;
  std::deque<Bytes> under_way;
};

class ContractStats : public SessionFixture {
 protected:
  void pump(Witness& from, Witness& to, std::mt19937& random) {
    const std::vector<Bytes> sent = from.end.sent.all();
    for (; from.taken < sent.size(); ++from.taken) {
      const unsigned dice = random() % 10;
      if (dice == 0) continue;
      from.under_way.push_back(sent[from.taken]);
      if (dice == 1) from.under_way.push_front(sent[from.taken]);
    }
    while (from.under_way.size() > static_cast<size_t>(random() % 3)) {
      to.fed.push_back(from.under_way.front());
      to.end.input(from.under_way.front());
      from.under_way.pop_front();
    }
  }

  void check(Witness& each) {
    const TarnStats stats = stats_of(each.end.handle());
    const std::vector<Bytes> sent = each.end.sent.all();
    const auto bytes = [](const std::vector<Bytes>& all) {
      uint64_t sum = 0;
      for (const Bytes& one : all) sum += one.size();
      return sum;
    };
    std::set<int> numbers;
    uint64_t again = 0;
    for (const int number : each.end.sent_numbers()) again += !numbers.insert(number).second;
    EXPECT_EQ(stats.messages_sent, each.accepted);
    EXPECT_EQ(stats.message_bytes_sent, each.accepted_bytes);
    EXPECT_EQ(stats.messages_delivered, each.end.reliable_received.count());
    EXPECT_EQ(stats.message_bytes_delivered, bytes(each.end.reliable_received.all()));
    EXPECT_EQ(stats.unreliable_sent, each.unreliable);
    EXPECT_EQ(stats.unreliable_delivered, each.end.unreliable_received.count());
    EXPECT_EQ(stats.segments_sent, numbers.size());
    EXPECT_EQ(stats.segments_resent, again);
    EXPECT_EQ(stats.segments_carried, 0u);
    EXPECT_EQ(stats.datagrams_sent, sent.size());
    EXPECT_EQ(stats.datagram_bytes_sent, bytes(sent));
    EXPECT_EQ(stats.datagrams_received, each.fed.size());
    EXPECT_EQ(stats.datagram_bytes_received, bytes(each.fed));
    const auto rejected = static_cast<uint64_t>(each.end.errors.count(TARN_ERROR_RECV_REJECTED));
    EXPECT_EQ(stats.segments_rejected, rejected);
    EXPECT_EQ(stats.segments_received, segments_of_type(each.fed, kReliable).size());
    std::set<int> distinct;
    for (const WireSegment& one : segments_of_type(each.fed, kReliable)) distinct.insert(one.seq());
    EXPECT_LE(stats.segments_repeated + stats.segments_rejected + distinct.size() - rejected,
              stats.segments_received);
    if (rejected == 0) {
      EXPECT_EQ(stats.segments_repeated, stats.segments_received - distinct.size());
    }
    EXPECT_EQ(stats.loss_ppm, stats.loss_ppm % 1000001);
    EXPECT_EQ(stats.rate_bytes_per_second, 0u);
    for (const Bytes& one : sent) EXPECT_LE(one.size(), 100u + 14);
  }
};

}  // namespace

TEST_F(ContractStats, EveryCounterIsWhatARecorderHasSeen) {
  for (unsigned seed = 1; seed < 7; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    Witness ends[2];
    for (Witness& each : ends) {
      stats_of(each.end.handle());
      set_option(each.end.handle(), TARN_OPTION_MTU, 100);
      set_option(each.end.handle(), TARN_OPTION_SEND_QUEUE, seed % 2 ? 2000 : 0);
      set_option(each.end.handle(), TARN_OPTION_KEEP_ALIVE_MS, seed % 3 ? 70 : 0);
      set_option(each.end.handle(), TARN_OPTION_SEND_WINDOW, 1 + random() % 40);
      if (seed > 4) tarn_set_conv(each.end.handle(), 9);
    }
    uint64_t refusals = 0;
    std::vector<std::vector<Bytes>> accepted(2);
    for (int round = 0; round < 60; ++round) {
      for (int who = 0; who < 2; ++who) {
        Witness& each = ends[who];
        for (size_t i = 0; i < random() % 4u; ++i) {
          const Bytes message = pattern(1 + random() % 350, random() % 1000);
          const int result = try_send(each.end.handle(), message);
          if (result != 0) {
            refusals += result == -EAGAIN;
            continue;
          }
          accepted[who].push_back(message);
          ++each.accepted;
          each.accepted_bytes += message.size();
        }
        if (random() % 3 == 0) {
          each.end.send_unreliable(pattern(1 + random() % 90));
          ++each.unreliable;
        }
        if (random() % 5 == 0) tarn_pause_receive(each.end.handle(), 1);
        if (random() % 3 == 0) tarn_pause_receive(each.end.handle(), 0);
      }
      pump(ends[0], ends[1], random);
      pump(ends[1], ends[0], random);
      advance(30);
      if (round % 10 == 9) {
        for (Witness& each : ends) check(each);
      }
    }
    for (Witness& each : ends) tarn_pause_receive(each.end.handle(), 0);
    for (int round = 0; round < 100; ++round) {
      pump(ends[0], ends[1], random);
      pump(ends[1], ends[0], random);
      advance(30);
    }
    EXPECT_EQ(ends[0].end.reliable_received.all(), accepted[1]);
    EXPECT_EQ(ends[1].end.reliable_received.all(), accepted[0]);
    for (Witness& each : ends) {
      check(each);
      const TarnStats stats = stats_of(each.end.handle());
      EXPECT_EQ(stats.outstanding_segments, 0u);
      EXPECT_EQ(stats.outstanding_bytes, 0u);
      EXPECT_EQ(stats.oldest_outstanding_ms, 0u);
      EXPECT_EQ(stats.queued_messages, 0u);
      EXPECT_EQ(stats.queued_bytes, 0u);
      EXPECT_EQ(stats.buffered_segments, 0u);
      if (each.accepted > 0) {
        EXPECT_GT(stats.rtt_us, 0u);
        EXPECT_LE(stats.rtt_min_us, stats.rtt_us + 1000000);
        EXPECT_GT(stats.rtt_min_us, 0u);
      }
    }
    EXPECT_EQ(stats_of(ends[0].end.handle()).messages_refused +
                  stats_of(ends[1].end.handle()).messages_refused,
              refusals);
    if (HasFailure()) return;
  }
}

TEST_F(ContractStats, TheOldestOutstandingIsAsOldAsItIs) {
  Endpoint a;
  a.send("before the first call");
  advance(40);
  stats_of(a.handle());
  advance(10);
  a.send("x");
  advance(100);
  EXPECT_GE(stats_of(a.handle()).oldest_outstanding_ms, 100u);
  EXPECT_LE(stats_of(a.handle()).oldest_outstanding_ms, 150u);
  a.input(datagram({ack({0})}));
  EXPECT_EQ(stats_of(a.handle()).oldest_outstanding_ms, 100u);
  a.input(datagram({ack({1})}));
  EXPECT_EQ(stats_of(a.handle()).oldest_outstanding_ms, 0u);
}

TEST_F(ContractStats, RubbishCountsAsDatagramsOnly) {
  Endpoint a;
  stats_of(a.handle());
  a.input(bytes_of("rubbish"));
  a.input(Bytes{});
  a.input(datagram({lying_segment(kReliable, 3, 500, {0, 0, 1})}));
  a.input(datagram({segment(kReliable, 3, {0, 0})}));
  const TarnStats stats = stats_of(a.handle());
  EXPECT_EQ(stats.datagrams_received, 4u);
  EXPECT_EQ(stats.segments_received - stats.segments_rejected, 0u);
  EXPECT_EQ(stats.messages_delivered, 0u);
}

// Options whose value is the one that holds anyway change nothing as long as the peer is honest.
TEST_F(ContractStats, OptionsAtTheirDefaultsChangeNoByteBetweenHonestPeers) {
  for (unsigned seed = 1; seed < 6; ++seed) {
    SCOPED_TRACE(seed);
    std::vector<Bytes> recorded[2];
    for (const bool controlled : {false, true}) {
      std::mt19937 random(seed);
      Endpoint a;
      if (controlled) {
        set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 32);
        set_option(a.handle(), TARN_OPTION_RECV_WINDOW, 32);
        set_option(a.handle(), TARN_OPTION_MTU, 1400);
        set_option(a.handle(), TARN_OPTION_ACTIVE_TIMEOUT_MS, 5000);
        set_option(a.handle(), TARN_OPTION_SEND_QUEUE, 0);
      }
      uint16_t peer = 0;
      for (int i = 0; i < 200; ++i) {
        const unsigned dice = random();
        if (dice % 4 == 0) a.send(pattern(1 + dice % 2000, dice));
        if (dice % 4 == 1) {
          a.input(datagram({reliable(static_cast<uint16_t>(peer + 1), pattern(9))}));
          a.input(datagram({reliable(peer, pattern(9))}));
          peer += 2;
        }
        if (dice % 4 == 2) a.send_unreliable(pattern(1 + dice % 1500, dice));
        const std::vector<int> sent = a.sent_numbers();
        if (dice % 4 == 3 && !sent.empty()) {
          a.input(datagram({ack({static_cast<uint16_t>(sent[random() % sent.size()])})}));
          if (dice % 3 == 0) a.input(datagram({una(static_cast<uint16_t>(sent.back()))}));
        }
        if (dice % 5 == 0) advance(30);
      }
      recorded[controlled] = a.sent.all();
    }
    EXPECT_EQ(recorded[0], recorded[1]);
  }
}
