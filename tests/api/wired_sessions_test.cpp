// Two sessions wired output to input: what one sends is fed to the other on the same stack, and
// answers come back before the call returns.
#include <atomic>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

// One direction; may lose what it is given.
struct Wire {
  void* to = nullptr;
  std::atomic<bool> cut{false};
  std::atomic<int> carried{0};
  static int on_data(char* data, int len, void* self) {
    auto* wire = static_cast<Wire*>(self);
    if (wire->cut) return 0;
    ++wire->carried;
    tarn_input(wire->to, data, len);
    return 0;
  }
};

// Answers each message with one of its own, from inside the callback.
struct Answerer {
  void* session = nullptr;
  int limit = 0;
  DatagramRecorder received;
  std::atomic<int> answered{0};
  static int on_data(char* data, int len, void* self) {
    auto* answerer = static_cast<Answerer*>(self);
    DatagramRecorder::on_data(data, len, &answerer->received);
    if (answerer->answered < answerer->limit) {
      ++answerer->answered;
      char answer[] = "answer";
      tarn_send_reliable(answerer->session, answer, 6);
    }
    return 0;
  }
};

class WiredSessions : public SessionFixture {
 protected:
  WiredSessions() {
    to_a_.to = a_.handle();
    to_b_.to = b_.handle();
    tarn_set_output_callback(a_.handle(), Wire::on_data, &to_b_);
    tarn_set_output_callback(b_.handle(), Wire::on_data, &to_a_);
  }
  ~WiredSessions() override {
    // Neither may be fed once its recorder is gone.
    to_a_.cut = to_b_.cut = true;
    b_.destroy();
    a_.destroy();
  }

  void answer_from(Answerer& answerer, Endpoint& end, int limit) {
    answerer.session = end.handle();
    answerer.limit = limit;
    tarn_set_recv_reliable_callback(end.handle(), Answerer::on_data, &answerer);
  }
  void stop_answering() {
    tarn_set_recv_reliable_callback(a_.handle(), nullptr, nullptr);
    tarn_set_recv_reliable_callback(b_.handle(), nullptr, nullptr);
  }
  // True when neither end has anything left to re-send after a while.
  bool quiet() {
    advance_by_steps(1000, 30);
    const int before = to_a_.carried + to_b_.carried;
    advance_by_steps(240, 30);
    return to_a_.carried + to_b_.carried == before;
  }

  Wire to_a_;
  Wire to_b_;
  Endpoint a_;
  Endpoint b_;
};

}  // namespace

TEST_F(WiredSessions, AMessageArrivesBeforeTheSendReturns) {
  a_.send("hello");
  EXPECT_EQ(b_.reliable_received.all(), std::vector<Bytes>{bytes_of("hello")});
}

TEST_F(WiredSessions, AcknowledgementsEndTheReSending) {
  for (int i = 0; i < 20; ++i) {
    a_.send("hello");
    b_.send("hello");
  }
  EXPECT_TRUE(quiet());
  EXPECT_EQ(a_.reliable_received.count(), 20u);
  EXPECT_EQ(b_.reliable_received.count(), 20u);
}

TEST_F(WiredSessions, AnAnswerFromInsideTheCallbackAcknowledgesOnTheSameStack) {
  Answerer answerer;
  answer_from(answerer, b_, 1000);

  for (int i = 0; i < 200; ++i) {
    a_.send("question");
    advance(30);
  }

  EXPECT_EQ(answerer.received.count(), 200u);
  EXPECT_EQ(a_.reliable_received.count(), 200u);
  EXPECT_TRUE(quiet());
  EXPECT_EQ(a_.errors.count(TARN_ERROR_SEND_OVERFLOW), 0);
  stop_answering();
}

TEST_F(WiredSessions, BothEndsAnsweringEachOtherGoDeep) {
  Answerer on_a;
  Answerer on_b;
  answer_from(on_a, a_, 10);
  answer_from(on_b, b_, 10);

  a_.send("start");

  EXPECT_EQ(on_b.received.count(), 11u);
  EXPECT_EQ(on_a.received.count(), 10u);
  EXPECT_TRUE(quiet());
  stop_answering();
}

TEST_F(WiredSessions, AnAnswerOnTheWorkerAcknowledgesWhileItReSends) {
  Answerer answerer;
  answer_from(answerer, b_, 1000);
  to_b_.cut = true;
  for (int i = 0; i < 20; ++i) a_.send("question");
  to_b_.cut = false;

  advance(60);

  EXPECT_EQ(answerer.received.count(), 20u);
  EXPECT_EQ(a_.reliable_received.count(), 20u);
  EXPECT_TRUE(quiet());
  stop_answering();
}

TEST_F(WiredSessions, LargeMessagesCrossBothWays) {
  const Bytes first = pattern(20000, 1);
  const Bytes second = pattern(30000, 2);

  a_.send(first);
  b_.send(second);

  EXPECT_EQ(b_.reliable_received.all(), std::vector<Bytes>{first});
  EXPECT_EQ(a_.reliable_received.all(), std::vector<Bytes>{second});
  EXPECT_TRUE(quiet());
}

TEST_F(WiredSessions, ADrainEndsAtOnceWhenThePeerHasAcknowledged) {
  a_.send("hello");
  advance(50);
  const LogCapture log;

  // The clock stands still: a wait would not end.
  tarn_wait_destroy(a_.handle(), 1000);

  EXPECT_EQ(log.count_containing("tarn stopped, legacy packet num 0 tick end "), 1);
}

namespace {

// Acknowledges everything as soon as the first segment is re-sent.
struct EagerPeer {
  void* session = nullptr;
  Bytes answer;
  DatagramRecorder seen;
  static int on_data(char* data, int len, void* self) {
    auto* peer = static_cast<EagerPeer*>(self);
    DatagramRecorder::on_data(data, len, &peer->seen);
    feed(peer->session, peer->answer);
    return 0;
  }
};

}  // namespace

using ReSendPass = SessionFixture;

TEST_F(ReSendPass, DoesNotEmitWhatWasAcknowledgedMeanwhile) {
  for (const Bytes& answer : {datagram({una(3)}), datagram({ack({0, 1, 2, 3})})}) {
    Endpoint a;
    for (int i = 0; i < 6; ++i) a.send("x");
    EagerPeer peer;
    peer.session = a.handle();
    peer.answer = answer;
    tarn_set_output_callback(a.handle(), EagerPeer::on_data, &peer);

    advance(60);

    std::vector<int> seen;
    for (const WireSegment& one : segments_of_type(peer.seen.all(), kReliable)) {
      seen.push_back(one.seq());
    }
    EXPECT_EQ(seen, (std::vector<int>{0, 4, 5}));
    a.destroy();
  }
}

TEST_F(ReSendPass, WhatIsSentFromInsideItWaitsItsTurn) {
  struct Sender {
    void* session;
    DatagramRecorder seen;
    bool sent = false;
    static int on_data(char* data, int len, void* self) {
      auto* sender = static_cast<Sender*>(self);
      DatagramRecorder::on_data(data, len, &sender->seen);
      if (sender->sent) return 0;
      sender->sent = true;
      char message[] = "new";
      tarn_send_reliable(sender->session, message, 3);
      return 0;
    }
  };
  Endpoint a;
  a.send("old");
  Sender sender{a.handle(), {}};
  tarn_set_output_callback(a.handle(), Sender::on_data, &sender);

  advance(60);

  EXPECT_EQ(sender.seen.all(), (std::vector<Bytes>{datagram({reliable(0, bytes_of("old"))}),
                                                   datagram({reliable(1, bytes_of("new"))})}));
  a.destroy();
}

TEST_F(ReSendPass, HoldsNoLockWhileItCallsOut) {
  // Another thread that uses the session must get on while an output callback is held up.
  struct Blocker {
    std::atomic<bool> entered{false};
    std::atomic<bool> released{false};
    static int on_data(char*, int, void* self) {
      auto* blocker = static_cast<Blocker*>(self);
      if (blocker->entered.exchange(true)) return 0;
      wait_until([blocker] { return blocker->released.load(); });
      return 0;
    }
  } blocker;
  Endpoint a;
  a.send("x");
  a.send("y");
  void* const nudge = tarn_create();
  settle();
  tarn_set_output_callback(a.handle(), Blocker::on_data, &blocker);
  clock_.advance_ms(60);
  tarn_destroy(nudge);
  ASSERT_TRUE(wait_until([&] { return blocker.entered.load(); }));
  const LogCapture log;

  a.input(datagram({ack({1}), una(0), reliable(0, {1})}));
  a.send("z");

  EXPECT_EQ(log.count(4, text("tarn %p got una %u send window size %lu", a.handle(), 0u, 0ul)), 1);
  EXPECT_EQ(a.reliable_received.count(), 1u);
  blocker.released = true;
  a.destroy();
}
