// tarn_try_send_reliable, tarn_send_room and the writable callback, without a queue.
#include <errno.h>

#include "tarn/control.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

// A window of 8 segments of 10 bytes.
class ControlSend : public SessionFixture {
 public:
  ControlSend() {
    tarn_set_option(a_.handle(), TARN_OPTION_MTU, 10);
    tarn_set_option(a_.handle(), TARN_OPTION_SEND_WINDOW, 8);
    tarn_set_writable_callback(a_.handle(), on_writable, this);
  }
  int try_send(const std::string& message) {
    return tarn_try_send_reliable(a_.handle(), message.data(), message.size());
  }
  int try_send(size_t size) { return try_send(std::string(size, 'x')); }
  void fill(int segments = 8) {
    for (int i = 0; i < segments; ++i) ASSERT_EQ(try_send(1), 0);
  }
  size_t room() { return tarn_send_room(a_.handle()); }

  static void on_writable(void* session, void* self) {
    auto* const test = static_cast<ControlSend*>(self);
    EXPECT_EQ(session, test->a_.handle());
    ++test->writable_;
    if (test->when_writable_) test->when_writable_();
  }

  Endpoint a_;
  int writable_ = 0;
  std::function<void()> when_writable_;
};

}  // namespace

TEST_F(ControlSend, AMessageGoesOutAsTheOtherCallSendsIt) {
  Endpoint b;
  tarn_set_option(b.handle(), TARN_OPTION_MTU, 10);
  for (const size_t size : {1, 9, 10, 11, 20, 35}) {
    EXPECT_EQ(try_send(std::string(size, 'y')), 0);
    b.send(std::string(size, 'y'));
    a_.input(datagram({una(static_cast<uint16_t>(a_.sent_numbers().back()))}));
  }
  EXPECT_EQ(a_.sent.all(), b.sent.all());
}

TEST_F(ControlSend, NothingIsNoMessage) {
  EXPECT_EQ(tarn_try_send_reliable(a_.handle(), "x", 0), -EINVAL);
  EXPECT_EQ(tarn_try_send_reliable(a_.handle(), nullptr, 1), -EINVAL);
  EXPECT_EQ(tarn_try_send_reliable(a_.handle(), nullptr, 0), -EINVAL);
  EXPECT_EQ(a_.sent.count(), 0u);
}

TEST_F(ControlSend, AFullWindowRefusesAndTakesNoNumber) {
  fill();
  EXPECT_EQ(room(), 0u);
  EXPECT_EQ(try_send(1), -EAGAIN);
  EXPECT_EQ(a_.sent.count(), 8u);

  a_.input(datagram({una(0)}));
  EXPECT_EQ(room(), 10u);
  EXPECT_EQ(try_send(1), 0);
  EXPECT_EQ(a_.sent_numbers().back(), 8);
  EXPECT_TRUE(a_.errors.all().empty());
}

TEST_F(ControlSend, AMessageIsTakenWholeOrNotAtAll) {
  fill(6);
  EXPECT_EQ(room(), 20u);
  EXPECT_EQ(try_send(21), -EAGAIN);
  EXPECT_EQ(a_.sent.count(), 6u);
  EXPECT_EQ(try_send(20), 0);
  EXPECT_EQ(a_.sent.count(), 8u);
}

TEST_F(ControlSend, WhatTheWindowCanNeverHoldIsTooLong) {
  EXPECT_EQ(room(), 80u);
  EXPECT_EQ(try_send(81), -EMSGSIZE);
  fill(1);
  EXPECT_EQ(try_send(81), -EMSGSIZE);
  EXPECT_EQ(try_send(80), -EAGAIN);
  a_.input(datagram({una(0)}));
  EXPECT_EQ(try_send(80), 0);
}

TEST_F(ControlSend, AcknowledgedOnesInTheMiddleMakeRoom) {
  fill();
  a_.input(datagram({ack({3, 5})}));
  EXPECT_EQ(room(), 20u);
}

TEST_F(ControlSend, WhatIsSentBeforeTheFirstCallTakesRoomToo) {
  tarn_config_send_window_size(4);
  Endpoint b;
  for (int i = 0; i < 3; ++i) b.send("x");
  EXPECT_EQ(tarn_send_room(b.handle()), 1400u);
  EXPECT_EQ(tarn_try_send_reliable(b.handle(), "x", 1), 0);
  EXPECT_EQ(tarn_try_send_reliable(b.handle(), "x", 1), -EAGAIN);
  b.input(datagram({una(1)}));
  EXPECT_EQ(tarn_send_room(b.handle()), 2800u);
}

TEST_F(ControlSend, WithTheOtherCallNumbersFollowTheOrderOfTheCalls) {
  try_send("a");
  a_.send("b");
  try_send("c");
  const auto segments = segments_of_type(a_.sent.all(), kReliable);
  ASSERT_EQ(segments.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(segments[i].seq(), i);
    EXPECT_EQ(segments[i].payload(), bytes_of(std::string(1, static_cast<char>('a' + i))));
  }
}

TEST_F(ControlSend, TheOtherCallOverflowsAsEver) {
  fill();
  a_.send("x");
  EXPECT_EQ(a_.errors.all(), std::vector<int>{TARN_ERROR_SEND_OVERFLOW});
  EXPECT_EQ(a_.sent_numbers().back(), 8) << "sent once";
  a_.input(datagram({una(7)}));
  EXPECT_EQ(room(), 80u) << "and not kept";
}

TEST_F(ControlSend, AnAcknowledgementOnTheSameStackFindsWhatItIsFor) {
  struct Echo {
    static int on_data(char*, int, void* self) {
      auto* const test = static_cast<ControlSend*>(self);
      feed(test->a_.handle(), datagram({una(0)}));
      return 0;
    }
  };
  tarn_set_output_callback(a_.handle(), Echo::on_data, this);
  EXPECT_EQ(try_send(1), 0);
  EXPECT_EQ(room(), 80u);
}

TEST_F(ControlSend, KeptIsReSentUntilItIsAcknowledged) {
  try_send(1);
  advance(60);
  EXPECT_EQ(a_.sent_numbers(), (std::vector<int>{0, 0}));
  a_.input(datagram({una(0)}));
  advance_by_steps(300);
  EXPECT_EQ(a_.sent.count(), 2u);
}

TEST_F(ControlSend, NobodyIsToldWhoWasNotRefused) {
  fill();
  a_.input(datagram({una(7)}));
  EXPECT_EQ(writable_, 0);
}

TEST_F(ControlSend, WhoWasRefusedIsToldOnceWhenHalfIsFree) {
  fill();
  EXPECT_EQ(try_send(1), -EAGAIN);
  EXPECT_EQ(try_send(1), -EAGAIN);
  a_.input(datagram({una(2)}));
  EXPECT_EQ(writable_, 0);
  a_.input(datagram({una(3)}));
  EXPECT_EQ(writable_, 1);
  a_.input(datagram({una(7)}));
  EXPECT_EQ(writable_, 1);
}

TEST_F(ControlSend, AndWhenTheSmallestFits) {
  fill();
  EXPECT_EQ(try_send(70), -EAGAIN);
  EXPECT_EQ(try_send(60), -EAGAIN);
  a_.input(datagram({una(4)}));
  EXPECT_EQ(writable_, 0);
  a_.input(datagram({una(5)}));
  EXPECT_EQ(writable_, 1);
}

TEST_F(ControlSend, TheCallbackMayFillTheWindowAgain) {
  when_writable_ = [this] {
    while (try_send(1) == 0) {
    }
  };
  fill();
  EXPECT_EQ(try_send(1), -EAGAIN);
  for (uint16_t seq = 3; seq < 400; seq = static_cast<uint16_t>(seq + 4)) {
    a_.input(datagram({una(seq)}));
    EXPECT_EQ(writable_, (seq + 1) / 4) << "not in a circle";
    EXPECT_EQ(room(), 0u);
  }
}

TEST_F(ControlSend, ACallbackThatIsSetLaterIsTold) {
  tarn_set_writable_callback(a_.handle(), nullptr, nullptr);
  fill();
  EXPECT_EQ(try_send(1), -EAGAIN);
  a_.input(datagram({una(7)}));
  tarn_set_writable_callback(a_.handle(), on_writable, this);
  EXPECT_EQ(writable_, 1);
}

TEST_F(ControlSend, ALargerWindowIsRoomToo) {
  fill();
  EXPECT_EQ(try_send(1), -EAGAIN);
  tarn_set_option(a_.handle(), TARN_OPTION_SEND_WINDOW, 16);
  EXPECT_EQ(writable_, 1);
  EXPECT_EQ(room(), 80u);
}

TEST_F(ControlSend, AWindowThatShrinksLosesNothing) {
  fill();
  tarn_set_option(a_.handle(), TARN_OPTION_SEND_WINDOW, 4);
  EXPECT_EQ(room(), 0u);
  a_.input(datagram({una(3)}));
  EXPECT_EQ(room(), 0u);
  a_.input(datagram({una(4)}));
  EXPECT_EQ(room(), 10u);
  a_.clear();
  advance(60);
  EXPECT_EQ(a_.sent_numbers(), (std::vector<int>{5, 6, 7}));
}

TEST_F(ControlSend, NoNumberGoesFurtherAheadThanThePeerWindow) {
  tarn_set_option(a_.handle(), TARN_OPTION_PEER_WINDOW, 3);
  fill(4);
  EXPECT_EQ(try_send(1), -EAGAIN);
  a_.input(datagram({ack({1, 2, 3})}));
  EXPECT_EQ(try_send(1), -EAGAIN) << "number 0 is the oldest still";
  a_.input(datagram({ack({0})}));
  EXPECT_EQ(try_send(1), 0);
  EXPECT_EQ(a_.sent_numbers().back(), 4);
}

TEST_F(ControlSend, AnAcknowledgementOfWhatIsNotOutstandingIsIgnored) {
  fill(4);
  a_.input(datagram({una(4)}));
  a_.input(datagram({una(200), ack({7, 60000})}));
  EXPECT_EQ(room(), 40u);
  a_.input(datagram({una(3)}));
  EXPECT_EQ(room(), 80u);
  fill(2);
  a_.input(datagram({una(1)}));
  EXPECT_EQ(room(), 60u);
}
