// Where datagrams go, and what happens to them when they have nowhere to go.
#include "tests/support/session_fixture.h"

using namespace tarn_test;

using SessionOutput = SessionFixture;

TEST_F(SessionOutput, LogsTheSizeOfEachDatagram) {
  Endpoint a;
  const LogCapture log;

  a.send("abc");

  EXPECT_EQ(log.count(5, text("tarn %p send reliable len %d", a.handle(), 3)), 1);
  EXPECT_EQ(log.count(5, text("tarn %p output size %lu", a.handle(), 10ul)), 1);
  EXPECT_EQ(log.count(5, text("tarn %p send reliable seq %u len %lu", a.handle(), 0u, 3ul)), 1);
}

TEST_F(SessionOutput, LogsTheCallThenTheDatagramThenTheNumber) {
  Endpoint a;
  const LogCapture log;

  a.send("abc");

  const auto lines = lines_about(log, a.handle());
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].text, text("tarn %p send reliable len %d", a.handle(), 3));
  EXPECT_EQ(lines[1].text, text("tarn %p output size %lu", a.handle(), 10ul));
  EXPECT_EQ(lines[2].text, text("tarn %p send reliable seq %u len %lu", a.handle(), 0u, 3ul));
}

TEST_F(SessionOutput, RunsOnTheCallingThread) {
  Endpoint a;

  a.send("abc");

  EXPECT_EQ(a.sent.last_thread(), std::this_thread::get_id());
}

TEST_F(SessionOutput, WithoutACallbackEachSendIsLoggedAndDropped) {
  Endpoint a;
  tarn_set_output_callback(a.handle(), nullptr, nullptr);
  const LogCapture log(2);
  char buffer[32] = {};

  a.send("abc");
  a.send_unreliable("abc");
  tarn_send_unreliable_nocp(a.handle(), buffer, 20);

  EXPECT_EQ(log.count(2, text("tarn %p has no output callback", a.handle())), 3);
  EXPECT_EQ(log.lines().size(), 3u);
}

TEST_F(SessionOutput, WithoutACallbackFeedbackIsLoggedAndDropped) {
  Endpoint a;
  tarn_set_output_callback(a.handle(), nullptr, nullptr);
  a.input(datagram({reliable(0, {1})}));
  const LogCapture log(2);

  advance(50);
  advance(50);

  // There is something to say only once.
  EXPECT_EQ(log.count(2, text("tarn %p has no output callback", a.handle())), 1);
}

TEST_F(SessionOutput, NothingIsQueuedForALaterCallback) {
  Endpoint a;
  tarn_set_output_callback(a.handle(), nullptr, nullptr);
  a.send_unreliable("lost");

  tarn_set_output_callback(a.handle(), DatagramRecorder::on_data, &a.sent);
  a.send_unreliable("sent");

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({unreliable(bytes_of("sent"))})});
}

TEST_F(SessionOutput, AReliableMessageWithoutACallbackIsSentByALaterReSend) {
  Endpoint a;
  tarn_set_output_callback(a.handle(), nullptr, nullptr);
  a.send("late");
  tarn_set_output_callback(a.handle(), DatagramRecorder::on_data, &a.sent);

  advance(60);

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({reliable(0, bytes_of("late"))})});
}

TEST_F(SessionOutput, TheCallersBytesMayBeReusedAtOnce) {
  Endpoint a;
  char message[] = "abc";

  tarn_send_reliable(a.handle(), message, 3);
  message[0] = message[1] = message[2] = '?';
  advance(60);

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>(2, datagram({reliable(0, bytes_of("abc"))})));
}

TEST_F(SessionOutput, ACallbackMayScribbleOverItsData) {
  Endpoint a;
  struct Scribbler {
    DatagramRecorder seen;
    static int on_data(char* data, int len, void* self) {
      DatagramRecorder::on_data(data, len, &static_cast<Scribbler*>(self)->seen);
      for (int i = 0; i < len; ++i) data[i] = '?';
      return 0;
    }
  } scribbler;
  tarn_set_output_callback(a.handle(), Scribbler::on_data, &scribbler);

  a.send("abc");
  advance(60);
  advance(120);

  EXPECT_EQ(scribbler.seen.all(), std::vector<Bytes>(3, datagram({reliable(0, bytes_of("abc"))})));
  tarn_set_output_callback(a.handle(), nullptr, nullptr);
}

TEST_F(SessionOutput, TheLastCallbackSetGetsEverything) {
  Endpoint a;
  DatagramRecorder other;
  a.send_unreliable("1");

  tarn_set_output_callback(a.handle(), DatagramRecorder::on_data, &other);
  a.send_unreliable("2");

  EXPECT_EQ(a.sent.count(), 1u);
  EXPECT_EQ(other.count(), 1u);
  tarn_set_output_callback(a.handle(), nullptr, nullptr);
}

TEST_F(SessionOutput, NegativeLengthCountsAs0) {
  Endpoint a;
  char bytes[] = "abc";

  tarn_send_unreliable(a.handle(), bytes, -1);
  tarn_send_reliable(a.handle(), bytes, -1000);

  EXPECT_EQ(a.sent.all(),
            (std::vector<Bytes>{datagram({unreliable({})}), datagram({reliable(0, {})})}));
}

TEST_F(SessionOutput, NullWithLength0IsAnEmptyMessage) {
  Endpoint a;

  tarn_send_unreliable(a.handle(), nullptr, 0);
  tarn_send_reliable(a.handle(), nullptr, 0);

  EXPECT_EQ(a.sent.all(),
            (std::vector<Bytes>{datagram({unreliable({})}), datagram({reliable(0, {})})}));
}

TEST_F(SessionOutput, NullWithALengthIsRefused) {
  Endpoint a;

  tarn_send_unreliable(a.handle(), nullptr, 10);
  tarn_send_reliable(a.handle(), nullptr, 10);
  tarn_send_unreliable_nocp(a.handle(), nullptr, 10);

  EXPECT_EQ(a.sent.count(), 0u);
}
