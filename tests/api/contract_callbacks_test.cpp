// control.h called from inside every callback, callbacks that throw or destroy, and two sessions
// wired to each other on one stack.
#include <algorithm>
#include <deque>
#include <map>
#include <set>
#include <stdexcept>
#include <thread>

#include "tests/api/contract_kit.h"

using namespace tarn_test;

namespace {

// Every call of the header at once.
void call_everything(void* session) {
  long long value;
  tarn_set_option(session, TARN_OPTION_PEER_TIMEOUT_MS, 100000);
  tarn_set_option(session, TARN_OPTION_SEND_WINDOW, 8);
  tarn_set_option(session, TARN_OPTION_SEND_QUEUE, 500);
  tarn_get_option(session, TARN_OPTION_SEND_QUEUE, &value);
  tarn_set_profile(session, TARN_PROFILE_PLAIN);
  tarn_pause_receive(session, 1);
  tarn_pause_receive(session, 0);
  tarn_send_room(session);
  tarn_try_send_reliable(session, "control", 7);
  TarnStats stats;
  tarn_get_stats(session, &stats, sizeof stats);
}

class ContractCallbacks : public SessionFixture {};

// One session's datagrams, fed to the other on the same stack.
struct Line {
  void* to = nullptr;
  bool cut = false;
  int depth = 0, deepest = 0;
  std::vector<Bytes> carried;
  static int on_data(char* data, int len, void* self) {
    auto* line = static_cast<Line*>(self);
    if (line->cut) return 0;
    line->carried.emplace_back(data, data + len);
    line->deepest = std::max(line->deepest, ++line->depth);
    tarn_input(line->to, data, len);
    --line->depth;
    return 0;
  }
};

class ContractWired : public SessionFixture {
 protected:
  ContractWired() {
    to_a_.to = a_.handle();
    to_b_.to = b_.handle();
    tarn_set_output_callback(a_.handle(), Line::on_data, &to_b_);
    tarn_set_output_callback(b_.handle(), Line::on_data, &to_a_);
  }
  ~ContractWired() override {
    for (Endpoint* each : {&a_, &b_}) {
      tarn_set_output_callback(each->handle(), nullptr, nullptr);
      tarn_set_recv_reliable_callback(each->handle(), nullptr, nullptr);
      tarn_set_writable_callback(each->handle(), nullptr, nullptr);
    }
    settle();
  }
  Line to_a_, to_b_;
  Endpoint a_, b_;
};

}  // namespace

TEST_F(ContractCallbacks, EveryCallWorksInsideEveryCallback) {
  for (const std::string place :
       {"output", "reliable", "unreliable", "error", "writable", "resend"}) {
    SCOPED_TRACE(place);
    Endpoint a;
    Hook hook;
    hook.does = [&] {
      if (hook.runs < 4) call_everything(a.handle());
    };
    if (place == "output" || place == "resend") {
      if (place == "output") tarn_set_output_callback(a.handle(), Hook::on_data, &hook);
      a.send("x");
      if (place == "resend") tarn_set_output_callback(a.handle(), Hook::on_data, &hook);
      advance_by_steps(150, 30);
    } else if (place == "reliable") {
      tarn_set_recv_reliable_callback(a.handle(), Hook::on_data, &hook);
      a.input(datagram({reliable(1, pattern(5))}));
      a.input(datagram({reliable(0, pattern(5))}));
    } else if (place == "unreliable") {
      tarn_set_recv_unreliable_callback(a.handle(), Hook::on_data, &hook);
      a.input(datagram({unreliable(pattern(5))}));
    } else if (place == "error") {
      tarn_set_error_callback(a.handle(), Hook::on_error, &hook);
      a.input(datagram({bye()}));
    } else {
      set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 1);
      tarn_set_writable_callback(a.handle(), Hook::on_writable, &hook);
      try_send(a.handle(), pattern(5));
      EXPECT_EQ(try_send(a.handle(), pattern(5)), -EAGAIN);
      a.input(datagram({una(0)}));
    }
    EXPECT_GE(hook.runs, 1);
    EXPECT_GE(stats_of(a.handle()).messages_sent, 1u);
    tarn_set_output_callback(a.handle(), DatagramRecorder::on_data, &a.sent);
    tarn_set_recv_reliable_callback(a.handle(), nullptr, nullptr);
    tarn_set_recv_unreliable_callback(a.handle(), nullptr, nullptr);
    tarn_set_error_callback(a.handle(), nullptr, nullptr);
    tarn_set_writable_callback(a.handle(), nullptr, nullptr);
    a.destroy();
  }
}

namespace {
void* logged_session = nullptr;
std::thread::id logged_thread;
int log_depth = 0;
int log_calls = 0;
// On the test's thread; the worker has lines of its own.
void call_from_log(int, const char*) {
  if (std::this_thread::get_id() != logged_thread) return;
  if (log_depth > 0 || logged_session == nullptr || log_calls > 200) return;
  ++log_depth;
  ++log_calls;
  call_everything(logged_session);
  --log_depth;
}
}  // namespace

TEST_F(ContractCallbacks, EveryCallWorksInsideTheLogCallback) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_SEND_QUEUE, 500);
  logged_thread = std::this_thread::get_id();
  logged_session = a.handle();
  log_calls = 0;
  tarn_set_log_callback2(5, call_from_log);
  a.send("x");
  a.input(datagram({reliable(1, pattern(5)), reliable(0, pattern(5)), una(0), ack({1, 2})}));
  try_send(a.handle(), pattern(5));
  tarn_set_log_callback2(0, nullptr);
  logged_session = nullptr;
  EXPECT_GT(log_calls, 5);
  EXPECT_EQ(a.reliable_received.count(), 2u);
  for (int i = 0; i < 300; ++i) a.input(datagram({una(static_cast<uint16_t>(i))}));
  EXPECT_EQ(stats_of(a.handle()).outstanding_segments, 0u);
  const TarnStats stats = stats_of(a.handle());
  // A line stands between a number and its datagram: what the callback sends may leave before it.
  const std::vector<int> numbers = a.sent_numbers();
  const std::set<int> distinct(numbers.begin(), numbers.end());
  EXPECT_EQ(distinct.size(), stats.messages_sent);
  EXPECT_EQ(*distinct.rbegin() + 1, static_cast<int>(stats.messages_sent));
}

TEST_F(ContractCallbacks, ASessionMayBeDestroyedInsideAnyCallbackOfAControlledSend) {
  for (const std::string place : {"output", "writable", "resumed", "drained", "error"}) {
    SCOPED_TRACE(place);
    Endpoint a;
    Hook hook;
    hook.does = [&] { tarn_destroy(a.handle()); };
    set_option(a.handle(), TARN_OPTION_MTU, 10);
    set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 2);
    set_option(a.handle(), TARN_OPTION_SEND_QUEUE, 100);
    if (place == "output") {
      tarn_set_output_callback(a.handle(), Hook::on_data, &hook);
      const int result = try_send(a.handle(), pattern(100));
      EXPECT_TRUE(result == 0 || result == -ESHUTDOWN) << result;
    } else if (place == "writable") {
      tarn_set_writable_callback(a.handle(), Hook::on_writable, &hook);
      EXPECT_EQ(try_send(a.handle(), pattern(100)), 0);
      EXPECT_EQ(try_send(a.handle(), pattern(100)), -EAGAIN);
      for (uint16_t i = 0; i < 12; ++i) a.input(datagram({una(i), reliable(i, pattern(3))}));
    } else if (place == "resumed") {
      tarn_pause_receive(a.handle(), 1);
      for (uint16_t i = 0; i < 10; ++i) a.input(datagram({reliable(i, pattern(3))}));
      tarn_set_recv_reliable_callback(a.handle(), Hook::on_data, &hook);
      tarn_pause_receive(a.handle(), 0);
    } else if (place == "drained") {
      EXPECT_EQ(try_send(a.handle(), pattern(100)), 0);
      tarn_set_output_callback(a.handle(), Hook::on_data, &hook);
      a.input(datagram({una(1), reliable(0, pattern(3))}));
    } else {
      tarn_set_error_callback(a.handle(), Hook::on_error, &hook);
      a.send(pattern(100));
      a.send(pattern(100));
    }
    EXPECT_EQ(hook.runs, 1) << "nothing runs for a session that has ended";
    EXPECT_TRUE(wait_until_gone(a.handle()));
    settle();
    a.forget();
  }
}

TEST_F(ContractCallbacks, AnOutputThatThrowsLosesNothingThatWasTaken) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_MTU, 10);
  set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 4);
  set_option(a.handle(), TARN_OPTION_SEND_QUEUE, 1000);
  Hook hook;
  hook.does = [] { throw std::runtime_error("output"); };
  tarn_set_output_callback(a.handle(), Hook::on_data, &hook);
  int taken = 0;
  try {
    taken = try_send(a.handle(), pattern(95)) == 0;
  } catch (const std::runtime_error&) {
    taken = 1;
  }
  EXPECT_EQ(taken, 1);
  EXPECT_EQ(hook.runs, 1);
  tarn_set_output_callback(a.handle(), DatagramRecorder::on_data, &a.sent);
  EXPECT_EQ(try_send(a.handle(), pattern(20, 2)), 0);
  // Whatever was not sent is re-sent; the rest leaves as it is acknowledged.
  for (int i = 0; i < 40; ++i) {
    advance(30);
    const std::vector<int> sent = a.sent_numbers();
    if (!sent.empty() && sent.front() == 0) {
      a.input(datagram({una(static_cast<uint16_t>(*std::max_element(sent.begin(), sent.end())))}));
    }
  }
  const TarnStats stats = stats_of(a.handle());
  EXPECT_EQ(stats.queued_messages, 0u);
  EXPECT_EQ(stats.outstanding_segments, 0u);
  std::map<int, Bytes> parts;
  for (const WireSegment& one : segments_of_type(a.sent.all(), kReliable)) {
    parts[one.seq()] = one.payload();
  }
  Bytes whole;
  for (const auto& [seq, part] : parts) whole.insert(whole.end(), part.begin(), part.end());
  EXPECT_EQ(whole, concat({pattern(95), pattern(20, 2)}));
}

TEST_F(ContractCallbacks, AnOutputThatThrowsWhileTheQueueDrainsLosesNothing) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_MTU, 10);
  set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 2);
  set_option(a.handle(), TARN_OPTION_SEND_QUEUE, 1000);
  EXPECT_EQ(try_send(a.handle(), pattern(200)), 0);
  Hook hook;
  hook.does = [] { throw std::runtime_error("output"); };
  tarn_set_output_callback(a.handle(), Hook::on_data, &hook);
  EXPECT_THROW(a.input(datagram({una(0)})), std::runtime_error);
  EXPECT_THROW(a.input(datagram({una(1)})), std::runtime_error);
  tarn_set_output_callback(a.handle(), DatagramRecorder::on_data, &a.sent);
  std::map<int, Bytes> parts;
  for (int i = 0; i < 80; ++i) {
    advance(30);
    for (const WireSegment& one : segments_of_type(a.sent.all(), kReliable)) {
      parts[one.seq()] = one.payload();
    }
    a.input(datagram({una(static_cast<uint16_t>(parts.rbegin()->first))}));
  }
  EXPECT_EQ(parts.size(), 20u);
  EXPECT_EQ(stats_of(a.handle()).queued_messages, 0u);
  EXPECT_EQ(stats_of(a.handle()).outstanding_segments, 0u);
}

TEST_F(ContractCallbacks, AReaderThatThrowsWhileResumingLosesAtMostItsMessage) {
  Endpoint a;
  tarn_pause_receive(a.handle(), 1);
  for (uint16_t i = 0; i < 10; ++i) a.input(datagram({reliable(i, pattern(3, i))}));
  Hook hook;
  hook.does = [&] {
    if (hook.runs == 3) throw std::runtime_error("reader");
  };
  tarn_set_recv_reliable_callback(a.handle(), Hook::on_data, &hook);
  EXPECT_THROW(tarn_pause_receive(a.handle(), 0), std::runtime_error);
  tarn_pause_receive(a.handle(), 1);
  EXPECT_EQ(tarn_pause_receive(a.handle(), 0), 0);
  a.input(datagram({reliable(10, pattern(3))}));
  EXPECT_EQ(hook.runs, 11) << "each message has met the callback once";
  tarn_set_recv_reliable_callback(a.handle(), nullptr, nullptr);
}

TEST_F(ContractCallbacks, AWritableCallbackThatThrowsIsCalledForTheNextRefusal) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 1);
  Hook hook;
  hook.does = [&] {
    if (hook.runs == 1) throw std::runtime_error("writable");
  };
  tarn_set_writable_callback(a.handle(), Hook::on_writable, &hook);
  for (uint16_t i = 0; i < 3; ++i) {
    EXPECT_EQ(try_send(a.handle(), pattern(5)), 0);
    EXPECT_EQ(try_send(a.handle(), pattern(5)), -EAGAIN);
    if (i == 0) {
      EXPECT_THROW(a.input(datagram({una(i)})), std::runtime_error);
    } else {
      a.input(datagram({una(i)}));
    }
    EXPECT_EQ(hook.runs, i + 1);
  }
  tarn_set_writable_callback(a.handle(), nullptr, nullptr);
}

TEST_F(ContractCallbacks, AnErrorCallbackThatThrowsOnARefusedMessageLeavesTheStreamWhole) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 1);
  set_option(a.handle(), TARN_OPTION_SEND_QUEUE, 10);
  Hook hook;
  hook.does = [] { throw std::runtime_error("error"); };
  tarn_set_error_callback(a.handle(), Hook::on_error, &hook);
  a.send(pattern(5, 1));
  EXPECT_THROW(a.send(pattern(2000, 2)), std::runtime_error);
  a.send(pattern(5, 3));
  a.input(datagram({una(0)}));
  EXPECT_EQ(messages_in(a.sent.all()), (std::vector<Bytes>{pattern(5, 1), pattern(5, 3)}));
  tarn_set_error_callback(a.handle(), nullptr, nullptr);
}

TEST_F(ContractCallbacks, ACallbackSetWhileSomebodyWaitsRunsWhenThereIsRoom) {
  Endpoint a;
  Hook hook;
  set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 1);
  EXPECT_EQ(try_send(a.handle(), pattern(5)), 0);
  EXPECT_EQ(try_send(a.handle(), pattern(5)), -EAGAIN);
  a.input(datagram({una(0)}));
  tarn_set_writable_callback(a.handle(), Hook::on_writable, &hook);
  EXPECT_EQ(hook.runs, 1);
}

TEST_F(ContractCallbacks, AWritableCallbackThatFillsTheWindowAgainIsCalledAgain) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_MTU, 10);
  set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 4);
  int sent = 0;
  Hook hook;
  hook.does = [&] {
    while (try_send(a.handle(), pattern(10, static_cast<unsigned>(sent))) == 0) ++sent;
  };
  tarn_set_writable_callback(a.handle(), Hook::on_writable, &hook);
  hook.run();
  for (uint16_t i = 1; i < 200; i += 2) a.input(datagram({una(i)}));
  EXPECT_EQ(hook.runs, 101);
  EXPECT_EQ(sent, 204);
  EXPECT_EQ(messages_in(a.sent.all()).size(), 204u);
  tarn_set_writable_callback(a.handle(), nullptr, nullptr);
}

TEST_F(ContractWired, AQueueFullOfMessagesIsDeliveredOnceAndInOrder) {
  set_option(a_.handle(), TARN_OPTION_MTU, 10);
  set_option(a_.handle(), TARN_OPTION_SEND_WINDOW, 3);
  set_option(a_.handle(), TARN_OPTION_SEND_QUEUE, 100000);
  std::vector<Bytes> sent;
  for (unsigned i = 0; i < 500; ++i) {
    sent.push_back(pattern(1 + i % 45, i));
    if (i % 2 == 0) {
      ASSERT_EQ(try_send(a_.handle(), sent.back()), 0);
    } else {
      a_.send(sent.back());
    }
  }
  for (int i = 0; i < 3000 && stats_of(a_.handle()).outstanding_segments > 0; ++i) advance(50);
  EXPECT_EQ(b_.reliable_received.all(), sent);
  EXPECT_EQ(stats_of(a_.handle()).segments_sent,
            stats_of(a_.handle()).datagrams_sent - stats_of(a_.handle()).segments_resent);
}

TEST_F(ContractWired, BothEndsAnsweringFromTheirCallbacksLoseNothing) {
  struct Player {
    void* session;
    int left;
    std::vector<Bytes> got;
    std::deque<Bytes> waiting;
    unsigned next = 0;
    std::vector<Bytes> sent;
    bool flushing = false;
    // What is said inside a send waits until that has returned.
    void flush() {
      if (flushing) return;
      flushing = true;
      while (!waiting.empty() && try_send(session, waiting.front()) == 0) waiting.pop_front();
      flushing = false;
    }
    void say() {
      if (left-- <= 0) return;
      const Bytes message = pattern(1 + next % 30, next);
      ++next;
      sent.push_back(message);
      waiting.push_back(message);
      flush();
    }
    static int on_data(char* data, int len, void* self) {
      auto* player = static_cast<Player*>(self);
      player->got.emplace_back(data, data + len);
      player->say();
      return 0;
    }
    static void on_writable(void*, void* self) { static_cast<Player*>(self)->flush(); }
  };
  Player players[] = {{a_.handle(), 60, {}, {}, 0, {}, false},
                      {b_.handle(), 60, {}, {}, 1000, {}, false}};
  for (Player& each : players) {
    set_option(each.session, TARN_OPTION_MTU, 10);
    set_option(each.session, TARN_OPTION_SEND_WINDOW, 3);
    tarn_set_recv_reliable_callback(each.session, Player::on_data, &each);
    tarn_set_writable_callback(each.session, Player::on_writable, &each);
  }
  players[0].say();
  players[0].say();
  players[1].say();
  for (int i = 0; i < 500; ++i) advance(50);
  EXPECT_EQ(players[1].got, players[0].sent);
  EXPECT_EQ(players[0].got, players[1].sent);
  EXPECT_TRUE(players[0].waiting.empty());
  EXPECT_TRUE(players[1].waiting.empty());
}

TEST_F(ContractWired, ALongExchangeOnOneStackStaysShallow) {
  // a floods b, whose acknowledgements ride on answers: each releases more of the queue.
  set_option(a_.handle(), TARN_OPTION_MTU, 10);
  set_option(a_.handle(), TARN_OPTION_SEND_WINDOW, 2);
  set_option(a_.handle(), TARN_OPTION_SEND_QUEUE, 100000);
  Hook answer;
  answer.does = [&] { tarn_send_unreliable(b_.handle(), const_cast<char*>("a"), 1); };
  tarn_set_recv_reliable_callback(b_.handle(), Hook::on_data, &answer);
  to_b_.cut = true;
  for (int i = 0; i < 5000; ++i) ASSERT_EQ(try_send(a_.handle(), pattern(10)), 0);
  to_b_.cut = false;
  for (int i = 0; i < 2000 && answer.runs < 5000; ++i) advance(30);
  EXPECT_EQ(answer.runs, 5000);
  EXPECT_LE(to_b_.deepest, 8);
}
