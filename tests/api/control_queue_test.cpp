// The send queue: what waits, in which order and pieces it leaves, and what a full one does.
#include <errno.h>

#include "tarn/control.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

// A window of 4 segments of 10 bytes, and 100 bytes that may wait.
class ControlQueue : public SessionFixture {
 protected:
  ControlQueue() {
    tarn_set_option(a_.handle(), TARN_OPTION_MTU, 10);
    tarn_set_option(a_.handle(), TARN_OPTION_SEND_WINDOW, 4);
    tarn_set_option(a_.handle(), TARN_OPTION_SEND_QUEUE, 100);
  }
  int try_send(const std::string& message) {
    return tarn_try_send_reliable(a_.handle(), message.data(), message.size());
  }
  TarnStats stats() {
    TarnStats stats;
    EXPECT_EQ(tarn_get_stats(a_.handle(), &stats, sizeof stats), 0);
    return stats;
  }
  // Payloads of what was sent, a message's pieces joined by '+'.
  std::string sent() {
    std::string all;
    for (const WireSegment& each : segments_of_type(a_.sent.all(), kReliable)) {
      const Bytes payload = each.payload();
      all += (each.flag & kFirst) != 0 ? " " : "+";
      all.append(payload.begin(), payload.end());
      if ((each.flag & kLast) != 0) all += ".";
    }
    return all;
  }

  Endpoint a_;
};

}  // namespace

TEST_F(ControlQueue, MessagesWaitAndLeaveInOrder) {
  for (const char* each : {"a", "b", "c", "d", "e", "f", "g"}) EXPECT_EQ(try_send(each), 0);
  EXPECT_EQ(sent(), " a. b. c. d.");
  EXPECT_EQ(stats().queued_messages, 3u);
  EXPECT_EQ(stats().queued_bytes, 3u);

  a_.input(datagram({una(1)}));
  EXPECT_EQ(sent(), " a. b. c. d. e. f.") << "by the datagram that acknowledges";
  a_.input(datagram({ack({3, 5})}));
  EXPECT_EQ(sent(), " a. b. c. d. e. f. g.");
  EXPECT_EQ(a_.sent_numbers(), (std::vector<int>{0, 1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(stats().queued_messages, 0u);
}

TEST_F(ControlQueue, AMessageLeavesInPiecesAsThereIsRoom) {
  EXPECT_EQ(try_send("x"), 0);
  EXPECT_EQ(try_send("aaaaaaaaaabbbbbbbbbbccccccccccdddddddddde"), 0);
  EXPECT_EQ(sent(), " x. aaaaaaaaaa+bbbbbbbbbb+cccccccccc");
  EXPECT_EQ(stats().queued_messages, 1u);
  EXPECT_EQ(stats().queued_bytes, 11u);
  a_.input(datagram({una(0)}));
  EXPECT_EQ(sent(), " x. aaaaaaaaaa+bbbbbbbbbb+cccccccccc+dddddddddd");
  a_.input(datagram({una(3)}));
  EXPECT_EQ(sent(), " x. aaaaaaaaaa+bbbbbbbbbb+cccccccccc+dddddddddd+e.");
}

TEST_F(ControlQueue, HasRoomForWhatItSays) {
  EXPECT_EQ(tarn_send_room(a_.handle()), 140u);
  EXPECT_EQ(try_send(std::string(141, 'x')), -EMSGSIZE);
  EXPECT_EQ(try_send(std::string(15, 'x')), 0);
  EXPECT_EQ(tarn_send_room(a_.handle()), 120u);
  EXPECT_EQ(try_send(std::string(121, 'x')), -EAGAIN);
  EXPECT_EQ(try_send(std::string(60, 'x')), 0);
  EXPECT_EQ(tarn_send_room(a_.handle()), 60u);
  EXPECT_EQ(try_send(std::string(61, 'x')), -EAGAIN);
  EXPECT_EQ(try_send(std::string(60, 'x')), 0);
  EXPECT_EQ(tarn_send_room(a_.handle()), 0u);
}

TEST_F(ControlQueue, TheOtherCallWaitsTooAndIsToldWhenItIsRefused) {
  const std::string long_one(100, 'x');
  for (const char* each : {"a", "b", "c", "d"}) a_.send(each);
  a_.send(long_one);
  EXPECT_EQ(a_.sent.count(), 4u);
  EXPECT_TRUE(a_.errors.all().empty());

  a_.send("refused");
  EXPECT_EQ(a_.errors.all(), std::vector<int>{TARN_ERROR_SEND_OVERFLOW});
  EXPECT_EQ(stats().messages_refused, 1u);
  EXPECT_EQ(stats().messages_sent, 5u);

  for (uint16_t una_number = 3; una_number < 14; ++una_number) {
    a_.input(datagram({una(una_number)}));
  }
  EXPECT_EQ(a_.sent_numbers().back(), 13);
  EXPECT_EQ(sent().find("refused"), std::string::npos);
  a_.send("next");
  EXPECT_EQ(sent().substr(sent().size() - 6), " next.") << "the stream lives on";
  EXPECT_EQ(a_.sent_numbers().back(), 14);
}

TEST_F(ControlQueue, ARefusedOneOfTheOtherCallWakesNobody) {
  static int calls;
  calls = 0;
  tarn_set_writable_callback(a_.handle(), [](void*, void*) { ++calls; }, nullptr);
  for (int i = 0; i < 4; ++i) a_.send("x");
  a_.send(std::string(100, 'x'));
  a_.send("refused");
  for (uint16_t seq = 0; seq < 14; ++seq) a_.input(datagram({una(seq)}));
  EXPECT_EQ(calls, 0);
}

TEST_F(ControlQueue, WhoIsRefusedIsToldWhenHalfOfEverythingIsFree) {
  static int calls;
  calls = 0;
  tarn_set_writable_callback(a_.handle(), [](void*, void*) { ++calls; }, nullptr);
  EXPECT_EQ(try_send(std::string(140, 'x')), 0);
  EXPECT_EQ(try_send("y"), -EAGAIN);
  for (uint16_t seq = 0; seq < 6; ++seq) a_.input(datagram({una(seq)}));
  EXPECT_EQ(calls, 0) << "60 of 140";
  a_.input(datagram({una(6)}));
  EXPECT_EQ(calls, 1);
}

TEST_F(ControlQueue, AQueueThatShrinksLosesNothing) {
  EXPECT_EQ(try_send(std::string(140, 'x')), 0);
  tarn_set_option(a_.handle(), TARN_OPTION_SEND_QUEUE, 0);
  EXPECT_EQ(tarn_send_room(a_.handle()), 0u);
  a_.send("refused");
  EXPECT_EQ(a_.errors.count(TARN_ERROR_SEND_OVERFLOW), 1);
  for (uint16_t seq = 0; seq < 14; ++seq) a_.input(datagram({una(seq)}));
  EXPECT_EQ(a_.sent_numbers().size(), 14u);
  EXPECT_EQ(tarn_send_room(a_.handle()), 40u);
}

TEST_F(ControlQueue, AWiderWindowLetsThemGoAtOnce) {
  for (int i = 0; i < 8; ++i) EXPECT_EQ(try_send("x"), 0);
  EXPECT_EQ(a_.sent.count(), 4u);
  tarn_set_option(a_.handle(), TARN_OPTION_SEND_WINDOW, 6);
  EXPECT_EQ(a_.sent.count(), 6u);
}

TEST_F(ControlQueue, WhoIsAloneMaySendMoreThanThePeerWindowAndTheQueueHold) {
  tarn_set_option(a_.handle(), TARN_OPTION_PEER_WINDOW, 1);
  EXPECT_EQ(try_send(std::string(140, 'x')), 0);
  EXPECT_EQ(a_.sent.count(), 2u);
  for (uint16_t seq = 0; seq < 14; ++seq) a_.input(datagram({una(seq)}));
  EXPECT_EQ(a_.sent_numbers().size(), 14u);
}

// Every emission is acknowledged on the same stack.
TEST_F(ControlQueue, AcknowledgementsOnTheSameStackDrainItWithoutGoingDeep) {
  struct Echo {
    void* session = nullptr;
    int depth = 0;
    int deepest = 0;
    static int on_data(char* data, int len, void* self) {
      auto* const echo = static_cast<Echo*>(self);
      echo->deepest = std::max(echo->deepest, ++echo->depth);
      const Bytes bytes(data, data + len);
      for (const WireSegment& each : segments_of(bytes)) {
        if (each.type == kReliable) feed(echo->session, datagram({ack({each.seq()})}));
      }
      --echo->depth;
      return 0;
    }
  };
  for (int i = 0; i < 4; ++i) EXPECT_EQ(try_send("x"), 0);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(try_send("x"), 0);
  Echo echo;
  echo.session = a_.handle();
  tarn_set_output_callback(a_.handle(), Echo::on_data, &echo);
  a_.input(datagram({una(0)}));
  EXPECT_EQ(stats().queued_messages, 0u);
  EXPECT_EQ(stats().outstanding_segments, 3u);
  EXPECT_LE(echo.deepest, 2);
}
