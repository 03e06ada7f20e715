// Acknowledgements that the cycle sends on its own.
#include "tests/support/session_fixture.h"

using namespace tarn_test;

using Feedback = SessionFixture;

namespace {

Bytes whole(int n) { return datagram({reliable(static_cast<uint16_t>(n), {1})}); }

}  // namespace

TEST_F(Feedback, NothingIsSentWhenNothingArrived) {
  Endpoint a;
  advance_by_steps(500, 50);
  EXPECT_EQ(a.sent.count(), 0u);
}

TEST_F(Feedback, ComesWithTheNextCycle) {
  Endpoint a;
  a.input(whole(0));

  advance(49);
  EXPECT_EQ(a.sent.count(), 0u);
  advance(1);

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({una(0)})});
}

TEST_F(Feedback, IsSentByTheWorker) {
  Endpoint a;
  a.input(whole(0));

  advance(50);

  ASSERT_EQ(a.sent.count(), 1u);
  EXPECT_NE(a.sent.last_thread(), std::this_thread::get_id());
}

TEST_F(Feedback, IsSentOnce) {
  Endpoint a;
  a.input(whole(0));
  a.input(whole(5));

  advance_by_steps(500, 50);

  EXPECT_EQ(a.sent.count(), 1u);
}

TEST_F(Feedback, PeriodIsTheRtxTimeoutOfTheCreation) {
  tarn_config_rtx_timeout(200);
  Endpoint a;
  tarn_config_rtx_timeout(10);
  a.input(whole(0));

  advance(199);
  EXPECT_EQ(a.sent.count(), 0u);
  advance(1);

  EXPECT_EQ(a.sent.count(), 1u);
}

TEST_F(Feedback, UnaIsTheLastNumberDeliveredInOrder) {
  Endpoint a;
  for (const int n : {0, 2, 1}) a.input(whole(n));

  advance(50);

  // The number that had come early is no longer listed.
  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({una(2)})});
}

TEST_F(Feedback, EarlyNumbersAreListedInTheOrderOfArrival) {
  Endpoint a;
  for (const int n : {0, 9, 5, 7}) a.input(whole(n));

  advance(50);

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({ack({9, 5, 7}), una(0)})});
}

TEST_F(Feedback, BeforeTheStartThereAreAcksButNoUna) {
  Endpoint a;
  for (const int n : {1, 2, 3}) a.input(whole(n));

  advance(50);

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({ack({1, 2, 3})})});
}

TEST_F(Feedback, ARepeatedEarlyNumberIsListedTwice) {
  Endpoint a;
  a.input(whole(4));
  a.input(whole(4));

  advance(50);

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({ack({4, 4})})});
}

TEST_F(Feedback, AReleaseTakesEveryMentionOffTheList) {
  Endpoint a;
  for (const int n : {0, 2, 2, 2, 9}) a.input(whole(n));

  a.input(whole(1));
  advance(50);

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({ack({9}), una(2)})});
}

TEST_F(Feedback, ADuplicateBringsUnaAgain) {
  Endpoint a;
  a.input(whole(0));
  a.input(whole(1));
  advance(50);
  a.sent.clear();

  a.input(whole(0));
  advance(50);

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({una(1)})});
}

TEST_F(Feedback, AnEarlyNumberAloneDoesNotBringUnaAgain) {
  Endpoint a;
  a.input(whole(0));
  advance(50);
  a.sent.clear();

  a.input(whole(2));
  advance(50);

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({ack({2})})});
}

TEST_F(Feedback, UnaWrapsWithTheNumbers) {
  Endpoint a;
  for (int n = 0; n <= 65536; ++n) a.input(whole(n & 0xFFFF));

  advance(50);

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({una(0)})});
}

TEST_F(Feedback, IsLoggedNumberByNumber) {
  Endpoint a;
  for (const int n : {0, 9, 5}) a.input(whole(n));
  const LogCapture log;

  advance(50);

  EXPECT_EQ(log.count(4, text("tarn %p feedback una %u", a.handle(), 0u)), 1);
  EXPECT_EQ(log.count(4, text("tarn %p feedback ack %u", a.handle(), 9u)), 1);
  EXPECT_EQ(log.count(4, text("tarn %p feedback ack %u", a.handle(), 5u)), 1);
  EXPECT_EQ(log.count(5, "got una 0"), 1);
}

TEST_F(Feedback, WithoutNewsTheWindowSaysSo) {
  Endpoint a;
  a.input(whole(0));
  advance(50);
  const LogCapture log;

  advance(50);

  EXPECT_EQ(log.count(5, "una empty,not update"), 1);
}

TEST_F(Feedback, ACycleAsksTheWindowOnceAndNotAgainForItsDatagram) {
  Endpoint a;
  a.input(whole(0));
  const LogCapture log;

  advance(50);

  EXPECT_EQ(log.count(5, "got una 0"), 1);
  EXPECT_EQ(log.count(5, "una empty,not update"), 0);
}

TEST_F(Feedback, BeforeTheStartTheWindowSaysNothing) {
  Endpoint a;
  a.input(whole(3));
  const LogCapture log;

  advance(50);
  advance(50);

  EXPECT_EQ(log.count_containing("una empty"), 0);
  EXPECT_EQ(log.count_containing("got una"), 0);
}

TEST_F(Feedback, AFullListIsSpreadOverCyclesOldestFirst) {
  tarn_config_mtu(20);
  tarn_config_recv_window_size(100);
  Endpoint a;
  a.input(whole(0));
  for (int n = 2; n < 22; ++n) a.input(whole(n));

  advance(50);
  advance(50);

  // (20 - 5 - 3) / 2 beside the una, (20 - 3) / 2 without it.
  EXPECT_EQ(a.sent.all(), (std::vector<Bytes>{datagram({ack({2, 3, 4, 5, 6, 7}), una(0)}),
                                              datagram({ack({8, 9, 10, 11, 12, 13, 14, 15})})}));
}

TEST_F(Feedback, AnMtuUnder6MeansNoFeedback) {
  for (const unsigned mtu : {0u, 1u, 5u}) {
    tarn_config_mtu(mtu);
    Endpoint a;
    a.input(whole(0));
    a.input(whole(4));

    advance_by_steps(200, 50);

    EXPECT_EQ(a.sent.count(), 0u) << mtu;
  }
}

TEST_F(Feedback, BesideUnaABudgetOf6Or7HasNoLimit) {
  for (const unsigned mtu : {6u, 7u}) {
    tarn_config_mtu(mtu);
    tarn_config_recv_window_size(1000);
    Endpoint a;
    a.input(whole(0));
    std::vector<uint16_t> early;
    for (uint16_t n = 2; n < 500; ++n) {
      early.push_back(n);
      a.input(whole(n));
    }

    advance(50);

    EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({ack(early), una(0)})}) << mtu;
  }
}

TEST_F(Feedback, BesideUnaABudgetOf8Or9MakesAnEmptyAckList) {
  for (const unsigned mtu : {8u, 9u}) {
    tarn_config_mtu(mtu);
    Endpoint a;
    a.input(whole(0));
    a.input(whole(7));

    advance(50);

    EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({ack({}), una(0)})}) << mtu;
    advance(50);
    EXPECT_EQ(a.sent.last(), datagram({ack({7})})) << mtu;
  }
}

TEST_F(Feedback, WithoutUnaABudgetOf6NamesOneNumber) {
  tarn_config_mtu(6);
  Endpoint a;
  a.input(whole(7));
  a.input(whole(8));

  advance(50);
  advance(50);

  EXPECT_EQ(a.sent.all(), (std::vector<Bytes>{datagram({ack({7})}), datagram({ack({8})})}));
}

TEST_F(Feedback, NamesAtMost32767SequenceNumbersWhateverTheMtu) {
  tarn_config_mtu(200000);
  Endpoint a;
  for (int i = 0; i < 40000; ++i) a.input(whole(7));

  advance(50);
  advance(50);

  // The list itself stops growing there, so nothing is left for a second one.
  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({ack(std::vector<uint16_t>(32767, 7))})});
}

TEST_F(Feedback, NamesAtMost32767SequenceNumbersWhenTheBudgetWrapsAround) {
  tarn_config_mtu(6);
  Endpoint a;
  a.input(whole(0));
  for (int i = 0; i < 40000; ++i) a.input(whole(7));

  advance(50);

  EXPECT_EQ(a.sent.all(),
            std::vector<Bytes>{datagram({ack(std::vector<uint16_t>(32767, 7)), una(0)})});
}

TEST_F(Feedback, IsNotFollowedByMoreFeedback) {
  Endpoint a;
  Endpoint b;
  a.input(whole(0));
  advance(50);

  b.input(a.sent.last());
  advance_by_steps(200, 50);

  EXPECT_EQ(b.sent.count(), 0u);
}

TEST_F(Feedback, GoesOutBeforeSilenceIsReported) {
  struct Order {
    std::string events;
    static int on_data(char*, int, void* self) {
      static_cast<Order*>(self)->events += "f";
      return 0;
    }
    static int on_error(TarnError, void* self) {
      static_cast<Order*>(self)->events += "s";
      return 0;
    }
  } order;
  tarn_config_active_timeout(0);
  Endpoint a;
  a.input(whole(0));
  tarn_set_output_callback(a.handle(), Order::on_data, &order);
  tarn_set_error_callback(a.handle(), Order::on_error, &order);

  advance(50);

  EXPECT_EQ(order.events, "fs");
  a.destroy();
}
