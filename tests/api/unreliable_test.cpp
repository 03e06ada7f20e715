// The copying unreliable channel: once, whole, at once.
#include "tests/support/session_fixture.h"

using namespace tarn_test;

using Unreliable = SessionFixture;

TEST_F(Unreliable, IsNeverSplit) {
  tarn_config_mtu(100);
  Endpoint a;
  const Bytes message = pattern(5000);

  a.send_unreliable(message);

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({unreliable(message)})});
}

TEST_F(Unreliable, IsNeverReSent) {
  Endpoint a;
  a.send_unreliable("x");

  advance_by_steps(1000, 30);

  EXPECT_EQ(a.sent.count(), 1u);
}

TEST_F(Unreliable, TakesNoSequenceNumber) {
  Endpoint a;
  a.send("1");
  a.send_unreliable("2");
  a.send("3");
  EXPECT_EQ(a.sent_numbers(), (std::vector<int>{0, 1}));
}

TEST_F(Unreliable, TheEmptyMessageIsSent) {
  Endpoint a;

  a.send_unreliable(Bytes());

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({unreliable({})})});
}

TEST_F(Unreliable, SendLogsTheCallAndTheDatagram) {
  Endpoint a;
  const LogCapture log;

  a.send_unreliable("0123456789");

  const auto lines = lines_about(log, a.handle());
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].level, 5);
  EXPECT_EQ(lines[0].text, text("tarn %p send unreliable len %d", a.handle(), 10));
  EXPECT_EQ(lines[1].text, text("tarn %p output size %lu", a.handle(), 15ul));
}

TEST_F(Unreliable, IsDeliveredAsItArrives) {
  Endpoint a;

  a.input(datagram({unreliable({1})}));
  a.input(datagram({unreliable({1})}));
  a.input(datagram({unreliable({0})}));

  EXPECT_EQ(a.unreliable_received.all(), (std::vector<Bytes>{{1}, {1}, {0}}));
}

TEST_F(Unreliable, DoesNotWaitForReliableMessages) {
  Endpoint a;

  a.input(datagram({reliable(3, {1}), unreliable({2})}));

  EXPECT_EQ(a.unreliable_received.count(), 1u);
  EXPECT_EQ(a.reliable_received.count(), 0u);
}

TEST_F(Unreliable, ReceiptIsLogged) {
  Endpoint a;
  const LogCapture log;

  a.input(datagram({unreliable({1, 2, 3})}));

  EXPECT_EQ(log.count(5, text("tarn %p got unreliable len %lu", a.handle(), 3ul)), 1);
  EXPECT_EQ(log.count(5, text("tarn %p recv unreliable len %lu", a.handle(), 3ul)), 1);
}

TEST_F(Unreliable, AnEmptyOneIsRefusedAndTheDatagramGoesOn) {
  Endpoint a;
  const LogCapture log;

  a.input(datagram({unreliable({}), unreliable({1})}));

  EXPECT_EQ(log.count(1, text("%p error unreliable size %lu", a.handle(), 0ul)), 1);
  EXPECT_EQ(a.unreliable_received.all(), std::vector<Bytes>{{1}});
}

TEST_F(Unreliable, WithoutACallbackItIsLoggedAndDropped) {
  Endpoint a;
  tarn_set_recv_unreliable_callback(a.handle(), nullptr, nullptr);
  const LogCapture log;

  a.input(datagram({unreliable({1})}));

  EXPECT_EQ(log.count(2, text("tarn %p has no unreliable callback", a.handle())), 1);
  EXPECT_TRUE(a.errors.all().empty());
}

TEST_F(Unreliable, DataPointsIntoTheDatagram) {
  Endpoint a;
  struct Seen {
    char* data = nullptr;
    static int on_data(char* data, int, void* self) {
      static_cast<Seen*>(self)->data = data;
      return 0;
    }
  } seen;
  tarn_set_recv_unreliable_callback(a.handle(), Seen::on_data, &seen);
  char bytes[] = {'$', 0, 0x07, 0x00, 0x01, 'x'};

  tarn_input(a.handle(), bytes, sizeof bytes);

  EXPECT_EQ(seen.data, bytes + 5);
}

TEST_F(Unreliable, IsDeliveredOnTheFeedingThread) {
  Endpoint a;

  a.input(datagram({unreliable({1})}));

  EXPECT_EQ(a.unreliable_received.last_thread(), std::this_thread::get_id());
}

TEST_F(Unreliable, ADatagramsWorthOf65535BytesIsDelivered) {
  Endpoint a;
  const Bytes message = pattern(65535);

  a.input(datagram({unreliable(message)}));

  EXPECT_EQ(a.unreliable_received.all(), std::vector<Bytes>{message});
}

TEST_F(Unreliable, KcpCallsLogAndDoNothing) {
  Endpoint a;
  const LogCapture log(1);
  char data[] = "abc";

  tarn_send_kcp(a.handle(), data, 3);
  tarn_send_kcp(nullptr, nullptr, -1);
  tarn_set_recv_kcp_callback(a.handle(), DatagramRecorder::on_data, &a.sent);
  tarn_set_recv_kcp_callback(nullptr, nullptr, nullptr);

  EXPECT_EQ(log.count(1, "kcp not surported"), 4);
  EXPECT_EQ(log.lines().size(), 4u);
  EXPECT_EQ(a.sent.count(), 0u);
}
