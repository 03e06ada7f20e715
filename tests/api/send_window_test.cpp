// What a session keeps for re-sending: room for so many segments, released by the peer's word.
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

class SendWindow : public SessionFixture {
 protected:
  // The numbers that the session re-sends in one full rotation, sorted by the clock.
  std::vector<int> re_sent(Endpoint& a) {
    a.sent.clear();
    advance_by_steps(120, 30);
    return a.sent_numbers();
  }
};

void send_many(Endpoint& a, int count) {
  for (int i = 0; i < count; ++i) a.send("x");
}

}  // namespace

TEST_F(SendWindow, The33rdSegmentIsSentOnceAndNotStored) {
  Endpoint a;

  send_many(a, 33);

  EXPECT_EQ(a.sent.count(), 33u);
  const std::vector<int> kept = re_sent(a);
  EXPECT_EQ(kept.size(), 32u);
  EXPECT_EQ(kept.back(), 31);
}

TEST_F(SendWindow, OverflowIsLoggedAndRaised) {
  Endpoint a;
  send_many(a, 32);
  EXPECT_TRUE(a.errors.all().empty());
  const LogCapture log;

  a.send("x");

  EXPECT_EQ(a.errors.all(), std::vector<int>{TARN_ERROR_SEND_OVERFLOW});
  EXPECT_EQ(log.count(1, text("tarn %p send window overflow size %lu", a.handle(), 32ul)), 1);
}

TEST_F(SendWindow, OverflowIsRaisedAfterTheDatagramOnTheCallingThread) {
  struct Order {
    std::vector<std::string> events;
    static int on_data(char*, int, void* self) {
      static_cast<Order*>(self)->events.push_back("output");
      return 0;
    }
    static int on_error(TarnError, void* self) {
      static_cast<Order*>(self)->events.push_back("error");
      return 0;
    }
  } order;
  Endpoint a;
  send_many(a, 32);
  tarn_set_output_callback(a.handle(), Order::on_data, &order);
  tarn_set_error_callback(a.handle(), Order::on_error, &order);

  a.send("x");

  EXPECT_EQ(order.events, (std::vector<std::string>{"output", "error"}));
  a.destroy();
}

TEST_F(SendWindow, OverflowWithoutAnErrorCallbackIsOnlyLogged) {
  Endpoint a;
  tarn_set_error_callback(a.handle(), nullptr, nullptr);
  send_many(a, 32);
  const LogCapture log(1);

  a.send("x");

  EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(SendWindow, EachPieceBeyondTheWindowOverflows) {
  tarn_config_mtu(1);
  Endpoint a;

  a.send(pattern(40));

  EXPECT_EQ(a.sent.count(), 40u);
  EXPECT_EQ(a.errors.count(TARN_ERROR_SEND_OVERFLOW), 8);
}

TEST_F(SendWindow, SizeAppliesAtOnce) {
  Endpoint a;
  send_many(a, 3);

  tarn_config_send_window_size(3);
  a.send("x");
  EXPECT_EQ(a.errors.count(TARN_ERROR_SEND_OVERFLOW), 1);

  tarn_config_send_window_size(4);
  a.send("x");
  EXPECT_EQ(a.errors.count(TARN_ERROR_SEND_OVERFLOW), 1);
}

TEST_F(SendWindow, Size0StoresNothing) {
  tarn_config_send_window_size(0);
  Endpoint a;

  a.send("x");

  EXPECT_EQ(a.errors.count(TARN_ERROR_SEND_OVERFLOW), 1);
  EXPECT_TRUE(re_sent(a).empty());
}

TEST_F(SendWindow, AnAckMakesRoom) {
  Endpoint a;
  send_many(a, 32);

  a.input(datagram({ack({7})}));
  a.send("x");

  EXPECT_TRUE(a.errors.all().empty());
}

TEST_F(SendWindow, AnAckedSegmentIsNotReSent) {
  Endpoint a;
  send_many(a, 4);

  a.input(datagram({ack({2, 0})}));

  EXPECT_EQ(re_sent(a), (std::vector<int>{1, 3}));
}

TEST_F(SendWindow, AnAckFindsASegmentInAnyBucket) {
  Endpoint a;
  for (int i = 0; i < 8; ++i) {
    a.send("x");
    advance(30);
  }

  a.input(datagram({ack({1, 2, 3, 4})}));

  std::vector<int> rest = re_sent(a);
  std::sort(rest.begin(), rest.end());
  EXPECT_EQ(rest, (std::vector<int>{0, 5, 6, 7}));
}

TEST_F(SendWindow, UnaReleasesEverythingUpToAndIncludingItsNumber) {
  Endpoint a;
  send_many(a, 5);

  a.input(datagram({una(2)}));

  EXPECT_EQ(re_sent(a), (std::vector<int>{3, 4}));
}

TEST_F(SendWindow, UnaReleasesFromEveryBucket) {
  Endpoint a;
  for (int i = 0; i < 8; ++i) {
    a.send("x");
    advance(30);
  }

  a.input(datagram({una(5)}));

  std::vector<int> rest = re_sent(a);
  std::sort(rest.begin(), rest.end());
  EXPECT_EQ(rest, (std::vector<int>{6, 7}));
}

TEST_F(SendWindow, AckOfAnUnknownNumberChangesNothing) {
  Endpoint a;
  send_many(a, 2);

  a.input(datagram({ack({2, 9, 65535})}));

  EXPECT_EQ(re_sent(a), (std::vector<int>{0, 1}));
}

TEST_F(SendWindow, AnAckGivenTwiceMakesRoomOnce) {
  Endpoint a;
  send_many(a, 32);

  a.input(datagram({ack({7, 7, 7})}));
  send_many(a, 2);

  EXPECT_EQ(a.errors.count(TARN_ERROR_SEND_OVERFLOW), 1);
}

TEST_F(SendWindow, UnaOf65535BeforeAnyIsSentReleasesNothing) {
  Endpoint a;
  send_many(a, 2);

  a.input(datagram({una(65535)}));

  EXPECT_EQ(re_sent(a), (std::vector<int>{0, 1}));
}

TEST_F(SendWindow, UnaAheadOfEverythingReleasesEverything) {
  Endpoint a;
  send_many(a, 3);

  a.input(datagram({una(1000)}));

  EXPECT_TRUE(re_sent(a).empty());
}

TEST_F(SendWindow, ANumberHalfTheRingAwayFromUnaIsNotAfterIt) {
  Endpoint a;
  send_many(a, 3);

  a.input(datagram({una(32768)}));

  EXPECT_TRUE(re_sent(a).empty());
}

TEST_F(SendWindow, UnaReleasesNothingBehindTheFirstNumberThatIsAfterIt) {
  Endpoint a;
  send_many(a, 3);

  // 0 lies 32767 after 32769; 1 is as far from it as can be; 2 comes before it.
  a.input(datagram({una(32769)}));

  EXPECT_EQ(re_sent(a), (std::vector<int>{0, 1, 2}));
}

TEST_F(SendWindow, UnaWorksAcrossTheWrap) {
  tarn_config_send_window_size(40000);
  Endpoint a;
  for (int i = 0; i <= 65535 + 3; ++i) {
    a.send("x");
    if (i % 1000 == 500) a.input(datagram({una(static_cast<uint16_t>(i))}));
    if (i % 1000 == 500) a.sent.clear();
    if (i == 65532) a.input(datagram({una(65532)}));
  }
  // 65533, 65534, 65535, 0, 1 and 2 are outstanding.

  a.input(datagram({una(1)}));

  EXPECT_EQ(re_sent(a), std::vector<int>{2});
}

TEST_F(SendWindow, LogsEachAckWithWhatIsLeft) {
  Endpoint a;
  send_many(a, 5);
  const LogCapture log;

  a.input(datagram({ack({1, 3, 9})}));

  EXPECT_EQ(log.count(4, text("tarn %p got ack %u,send window size %lu", a.handle(), 1u, 4ul)), 1);
  EXPECT_EQ(log.count(4, text("tarn %p got ack %u,send window size %lu", a.handle(), 3u, 3ul)), 1);
  EXPECT_EQ(log.count(4, text("tarn %p got ack %u,send window size %lu", a.handle(), 9u, 3ul)), 1);
}

TEST_F(SendWindow, LogsUnaBucketByBucketAndThenWhatIsLeft) {
  Endpoint a;
  send_many(a, 5);
  const LogCapture log;

  a.input(datagram({una(2)}));

  EXPECT_EQ(log.count(5, "send window got una 2,bucket count 5 -> 2"), 1);
  EXPECT_EQ(log.count(5, "send window got una 2,bucket count 0 -> 0"), 3);
  EXPECT_EQ(log.count(4, text("tarn %p got una %u send window size %lu", a.handle(), 2u, 2ul)), 1);
}

TEST_F(SendWindow, UnaOfTheWrongSizeIsLoggedAndIgnored) {
  Endpoint a;
  send_many(a, 2);
  const LogCapture log(1);

  for (const size_t size : {0u, 1u, 3u, 4u}) {
    a.input(datagram({segment(kUna, 3, Bytes(size, 0))}));
    EXPECT_EQ(log.count(1, text("error una size %zu", size)), 1);
  }

  EXPECT_EQ(re_sent(a), (std::vector<int>{0, 1}));
}

TEST_F(SendWindow, AckListOfOddLengthIsIgnoredWhole) {
  Endpoint a;
  send_many(a, 2);
  const LogCapture log(1);

  a.input(datagram({segment(kAck, 3, {0, 0, 0})}));

  EXPECT_EQ(log.count(1, text("%p error ack size %lu", a.handle(), 3ul)), 1);
  EXPECT_EQ(re_sent(a), (std::vector<int>{0, 1}));
}
