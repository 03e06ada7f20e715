// Pausing, the longest message, foreign conversations, and numbers that nobody can mean.
#include "tarn/control.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

class ControlReceive : public SessionFixture {
 public:
  void set(TarnOption option, long long value) {
    ASSERT_EQ(tarn_set_option(a_.handle(), option, value), 0);
  }
  void pause(bool on) { EXPECT_EQ(tarn_pause_receive(a_.handle(), on), 0); }
  void message(uint16_t seq, const std::string& body, int flag = kWhole) {
    a_.input(datagram({reliable(seq, bytes_of(body), flag)}));
  }
  std::string received() {
    std::string all;
    for (const Bytes& each : a_.reliable_received.all()) {
      all += std::string(each.begin(), each.end()) + " ";
    }
    return all;
  }
  // What the next cycle tells the peer.
  std::vector<uint16_t> acknowledged() {
    a_.sent.clear();
    advance(50);
    std::vector<uint16_t> numbers;
    for (const WireSegment& each : segments_of_type(a_.sent.all(), kAck)) {
      for (const uint16_t seq : each.numbers()) numbers.push_back(seq);
    }
    return numbers;
  }
  int last_una() {
    const auto segments = segments_of_type(a_.sent.all(), kUna);
    return segments.empty() ? -1 : segments.back().seq();
  }

  Endpoint a_;
  int depth_ = 0;
  int calls_ = 0;
};

using Numbers = std::vector<uint16_t>;

}  // namespace

TEST_F(ControlReceive, NothingReliableIsDeliveredWhilePaused) {
  message(0, "a");
  pause(true);
  message(1, "b");
  a_.input(datagram({unreliable(bytes_of("u"))}));
  EXPECT_EQ(received(), "a ");
  EXPECT_EQ(a_.unreliable_received.count(), 1u);

  pause(false);
  EXPECT_EQ(received(), "a b ");
  EXPECT_EQ(a_.reliable_received.last_thread(), std::this_thread::get_id());
}

TEST_F(ControlReceive, WhatIsKeptIsAcknowledgedOneByOne) {
  message(0, "a");
  pause(true);
  message(1, "b");
  message(2, "c");
  EXPECT_EQ(acknowledged(), (Numbers{1, 2}));
  EXPECT_EQ(last_una(), 0);
  pause(false);
  acknowledged();
  EXPECT_EQ(last_una(), 2);
}

TEST_F(ControlReceive, MoreThanTheWindowIsRefusedAndComesAgain) {
  set(TARN_OPTION_RECV_WINDOW, 3);
  pause(true);
  for (uint16_t seq = 0; seq < 5; ++seq) message(seq, std::string(1, static_cast<char>('a' + seq)));
  EXPECT_EQ(a_.errors.all(),
            (std::vector<int>{TARN_ERROR_RECV_REJECTED, TARN_ERROR_RECV_REJECTED}));
  EXPECT_EQ(acknowledged(), (Numbers{0, 1, 2}));
  pause(false);
  EXPECT_EQ(received(), "a b c ");
  message(3, "d");
  message(4, "e");
  EXPECT_EQ(received(), "a b c d e ");
}

TEST_F(ControlReceive, ResumingDeliversUpToTheGap) {
  pause(true);
  for (const uint16_t seq : {2, 0, 4, 1}) message(seq, std::to_string(seq));
  pause(false);
  EXPECT_EQ(received(), "0 1 2 ");
  message(3, "3");
  EXPECT_EQ(received(), "0 1 2 3 4 ");
}

TEST_F(ControlReceive, APauseInTheMiddleOfAMessageKeepsItsPieces) {
  message(0, "ab", kFirst);
  pause(true);
  message(1, "cd", kMiddle);
  message(2, "ef", kLast);
  EXPECT_EQ(received(), "");
  pause(false);
  EXPECT_EQ(received(), "abcdef ");
}

TEST_F(ControlReceive, TwiceIsOnce) {
  pause(true);
  pause(true);
  message(0, "a");
  message(0, "a");
  pause(false);
  pause(false);
  EXPECT_EQ(received(), "a ");
}

namespace {

// Pauses after each message.
struct SlowReader {
  void* session = nullptr;
  std::string got;
  static int on_message(char* data, int len, void* self) {
    auto* const reader = static_cast<SlowReader*>(self);
    reader->got.append(data, static_cast<size_t>(len));
    tarn_pause_receive(reader->session, 1);
    return 0;
  }
};

}  // namespace

// The first pause is the first call of its kind on the session, made inside the datagram.
TEST_F(ControlReceive, APauseInsideTheCallbackHoldsBackWhatTheSameDatagramBrings) {
  SlowReader reader;
  reader.session = a_.handle();
  tarn_set_recv_reliable_callback(a_.handle(), SlowReader::on_message, &reader);
  message(2, "c");
  a_.input(datagram({reliable(0, {'a'}), reliable(1, {'b'})}));
  EXPECT_EQ(reader.got, "a");
  message(3, "d");
  for (const char* expected : {"ab", "abc", "abcd", "abcd"}) {
    pause(false);
    EXPECT_EQ(reader.got, expected);
  }
}

TEST_F(ControlReceive, ResumingInsideTheCallbackGoesOnThere) {
  struct Reader {
    static int on_message(char*, int, void* self) {
      auto* const test = static_cast<ControlReceive*>(self);
      ++test->depth_;
      EXPECT_EQ(test->depth_, 1) << "one after the other";
      tarn_pause_receive(test->a_.handle(), 1);
      tarn_pause_receive(test->a_.handle(), 0);
      --test->depth_;
      ++test->calls_;
      return 0;
    }
  };
  tarn_set_option(a_.handle(), TARN_OPTION_MAX_MESSAGE, 100);
  tarn_set_recv_reliable_callback(a_.handle(), Reader::on_message, this);
  message(1, "b");
  message(2, "c");
  message(0, "a");
  EXPECT_EQ(calls_, 3);
}

TEST_F(ControlReceive, AMessageMayHaveItsMaximum) {
  set(TARN_OPTION_MAX_MESSAGE, 4);
  message(0, "abcd");
  message(1, "ef", kFirst);
  message(2, "gh", kLast);
  EXPECT_EQ(received(), "abcd efgh ");
  EXPECT_TRUE(a_.errors.all().empty());
}

TEST_F(ControlReceive, AMessageThatGrowsBeyondItEndsWhatIsReliable) {
  set(TARN_OPTION_MAX_MESSAGE, 4);
  message(0, "abc", kFirst);
  message(1, "de", kMiddle);
  EXPECT_EQ(a_.errors.all(), std::vector<int>{TARN_ERROR_MESSAGE_TOO_LARGE});
  acknowledged();
  EXPECT_EQ(last_una(), 0);
  message(1, "de", kMiddle);
  message(2, "f", kLast);
  message(3, "g");
  EXPECT_EQ(acknowledged(), Numbers{});
  EXPECT_EQ(last_una(), -1);
  EXPECT_EQ(received(), "");
  EXPECT_EQ(a_.errors.all(), std::vector<int>{TARN_ERROR_MESSAGE_TOO_LARGE}) << "once";

  a_.input(datagram({unreliable(bytes_of("u"))}));
  EXPECT_EQ(a_.unreliable_received.count(), 1u);
  a_.send("x");
  EXPECT_EQ(a_.sent_numbers().back(), 0);
  a_.input(datagram({una(0)}));
  a_.sent.clear();
  advance_by_steps(200);
  EXPECT_EQ(a_.sent.count(), 0u);
}

TEST_F(ControlReceive, AMessageThatIsTooLongInOnePiece) {
  set(TARN_OPTION_MAX_MESSAGE, 4);
  message(0, "abcde");
  EXPECT_EQ(a_.errors.all(), std::vector<int>{TARN_ERROR_MESSAGE_TOO_LARGE});
  EXPECT_EQ(received(), "");
}

TEST_F(ControlReceive, AMessageWhosePiecesCameEarlyIsMeasuredToo) {
  set(TARN_OPTION_MAX_MESSAGE, 4);
  message(1, "cd", kMiddle);
  message(2, "ef", kLast);
  message(0, "ab", kFirst);
  EXPECT_EQ(a_.errors.all(), std::vector<int>{TARN_ERROR_MESSAGE_TOO_LARGE});
  EXPECT_EQ(received(), "");
}

TEST_F(ControlReceive, OtherConversationsAreDroppedWhenStrict) {
  tarn_set_conv(a_.handle(), 7);
  set(TARN_OPTION_STRICT_CONV, 1);
  a_.input(datagram({conv(8), reliable(0, {'x'})}));
  a_.input(datagram({reliable(0, {'y'})}));
  a_.input(datagram({reliable(0, {'z'}), conv(8)}));
  EXPECT_EQ(received(), "");
  a_.input(datagram({reliable(0, {'a'}), conv(7)}));
  EXPECT_EQ(received(), "a ");
}

TEST_F(ControlReceive, OtherConversationsAreNoActivity) {
  tarn_config_active_timeout(200);
  tarn_set_conv(a_.handle(), 7);
  set(TARN_OPTION_STRICT_CONV, 1);
  for (int i = 0; i < 5; ++i) {
    advance(50);
    a_.input(datagram({conv(8), unreliable({'x'})}));
  }
  EXPECT_GT(a_.errors.count(TARN_ERROR_INACTIVE), 0);
}

TEST_F(ControlReceive, NoConversationTakesTheFirstOneOver) {
  set(TARN_OPTION_STRICT_CONV, 1);
  message(0, "a");
  a_.input(datagram({conv(9), reliable(1, {'b'})}));
  EXPECT_EQ(tarn_get_conv(a_.handle()), 9u);
  a_.input(datagram({conv(10), reliable(2, {'c'})}));
  message(2, "d");
  EXPECT_EQ(received(), "a b ");
}

TEST_F(ControlReceive, NumbersFarAheadAreRefusedOnceAnyOptionIsSet) {
  message(0, "a");
  message(8193, "x");
  EXPECT_TRUE(a_.errors.all().empty()) << "as ever";
  set(TARN_OPTION_RECV_WINDOW, 32);
  message(8192, "x");
  EXPECT_TRUE(a_.errors.all().empty());
  message(8194, "x");
  message(32767, "x");
  EXPECT_EQ(a_.errors.all(),
            (std::vector<int>{TARN_ERROR_RECV_REJECTED, TARN_ERROR_RECV_REJECTED}));
  EXPECT_EQ(acknowledged(), (Numbers{8193, 8192}));
}
