// The conversation id: set, learned, compared, never a reason to drop anything.
#include "tests/support/session_fixture.h"

using namespace tarn_test;

using Conv = SessionFixture;

TEST_F(Conv, Is0AtFirst) {
  Endpoint a;
  EXPECT_EQ(tarn_get_conv(a.handle()), 0u);
}

TEST_F(Conv, IsWhatWasSet) {
  Endpoint a;
  const LogCapture log;

  tarn_set_conv(a.handle(), 0xFFFFFFFF);

  EXPECT_EQ(tarn_get_conv(a.handle()), 0xFFFFFFFFu);
  EXPECT_EQ(log.count(5, text("tarn %p set conv 4294967295", a.handle())), 1);
}

TEST_F(Conv, IsTakenOverFromThePeerWhileItIs0) {
  Endpoint a;

  a.input(datagram({conv(9)}));
  a.send_unreliable("x");

  EXPECT_EQ(tarn_get_conv(a.handle()), 9u);
  EXPECT_EQ(a.sent.at(0), datagram({conv(9), unreliable({'x'})}));
}

TEST_F(Conv, ReceivedOneIsLogged) {
  Endpoint a;
  const LogCapture log;

  a.input(datagram({conv(0xFFFFFFFE)}));

  EXPECT_EQ(log.count(5, text("tarn %p got conv 4294967294", a.handle())), 1);
}

TEST_F(Conv, ADifferentOneIsReportedAndTheDataStillDelivered) {
  Endpoint a;
  tarn_set_conv(a.handle(), 5);
  const LogCapture log;

  a.input(datagram({conv(9), unreliable({1}), reliable(0, {2})}));

  EXPECT_EQ(log.count(2, text("tarn %p error conv local %lu recv %lu", a.handle(), 5ul, 9ul)), 1);
  EXPECT_EQ(tarn_get_conv(a.handle()), 5u);
  EXPECT_EQ(a.unreliable_received.count(), 1u);
  EXPECT_EQ(a.reliable_received.count(), 1u);
}

TEST_F(Conv, TheSameOneIsNotReported) {
  Endpoint a;
  tarn_set_conv(a.handle(), 5);
  const LogCapture log(2);

  a.input(datagram({conv(5)}));

  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Conv, AReceived0DiffersFromOnesOwn) {
  Endpoint a;
  tarn_set_conv(a.handle(), 5);
  const LogCapture log;

  a.input(datagram({conv(0)}));

  EXPECT_EQ(log.count(2, text("tarn %p error conv local %lu recv %lu", a.handle(), 5ul, 0ul)), 1);
}

TEST_F(Conv, OnlyTheFirstOneIsTakenOver) {
  Endpoint a;

  a.input(datagram({conv(8), conv(9)}));

  EXPECT_EQ(tarn_get_conv(a.handle()), 8u);
}

TEST_F(Conv, MayBeTakenBackTo0) {
  Endpoint a;
  tarn_set_conv(a.handle(), 5);

  tarn_set_conv(a.handle(), 0);
  a.send_unreliable("x");

  EXPECT_EQ(a.sent.at(0), datagram({unreliable({'x'})}));
}

TEST_F(Conv, ABodyUnder4BytesIsLoggedAndTheDatagramGoesOn) {
  for (size_t size = 0; size < 4; ++size) {
    Endpoint a;
    const LogCapture log;

    a.input(datagram({segment(kConv, 3, Bytes(size, 1)), unreliable({1})}));

    EXPECT_EQ(log.count(1, text("error conv size %zu", size)), 1);
    EXPECT_EQ(tarn_get_conv(a.handle()), 0u);
    EXPECT_EQ(a.unreliable_received.count(), 1u);
  }
}

TEST_F(Conv, IsAddedToAReSentSegment) {
  Endpoint a;
  a.send("x");

  tarn_set_conv(a.handle(), 7);
  advance(60);

  EXPECT_EQ(a.sent.last(), datagram({conv(7), reliable(0, {'x'})}));
}

TEST_F(Conv, IsStillStoredAfterTheSessionWasStopped) {
  Endpoint a;
  const WorkerHold hold;
  tarn_destroy(a.handle());

  tarn_set_conv(a.handle(), 77);

  EXPECT_EQ(tarn_get_conv(a.handle()), 77u);
}
