// TarnSession: what the exported calls do not reach, or not in one piece.
#include "src/tarn_session.h"

#include <gtest/gtest.h>
#include <limits.h>

#include <string>
#include <vector>

#include "src/tarn_thread.h"
#include "tests/support/datagram_recorder.h"
#include "tests/support/kit_bytes.h"
#include "tests/support/kit_death.h"
#include "tests/support/kit_worker.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_peer.h"
#include "tests/support/virtual_clock.h"

using namespace tarn_test;

namespace {

// What a view shows, byte by byte.
Bytes bytes_of_view(const DataView& view) { return tarn_test::bytes_of(text_of(view)); }

DataView view_of(const Bytes& bytes) { return owned_view(std::string(bytes.begin(), bytes.end())); }

// A session that is in no registry, on a stopped clock: its timers never fall due.
class TarnSessionTest : public ::testing::Test {
 protected:
  TarnSessionTest() : session_(oxutils::make_shared<TarnSession>()) {
    session_->set_output_callback(DatagramRecorder::on_data, &sent_);
    session_->set_recv_reliable_callback(DatagramRecorder::on_data, &received_);
    session_->set_error_callback(ErrorRecorder::on_error, &errors_);
    session_->start();
    worker_turn();
  }
  ~TarnSessionTest() override {
    session_->stop();
    worker_turn();  // the timers that refer to the session are gone
  }

  // The peer sent these numbers, with nothing between them.
  void receive(const std::vector<uint16_t>& numbers) {
    for (const uint16_t seq : numbers) session_->input(view_of(datagram({reliable(seq, {'m'})})));
  }

  VirtualClock clock_;
  RunningWorker worker_;
  DatagramRecorder sent_;
  DatagramRecorder received_;
  ErrorRecorder errors_;
  oxutils::shared_ptr<TarnSession> session_;
};

using TarnSessionDeathTest = TarnSessionTest;

}  // namespace

// --- Segment heads and the conv segment ---

TEST(SegmentHead, IsTypeFlagAndLengthInThreeBytes) {
  DataView head(3);
  TarnSession::make_seg_head(head, 6, 3, 0x1234);
  EXPECT_EQ(bytes_of_view(head), (Bytes{0x1B, 0x12, 0x34}));
}

TEST(SegmentHead, KeepsTheLowTwoBitsOfTheFlag) {
  DataView head(3);
  TarnSession::make_seg_head(head, 0, 6, 0);
  EXPECT_EQ(bytes_of_view(head), (Bytes{0x02, 0, 0}));
}

TEST(SegmentHead, LeavesTheRestOfTheViewAlone) {
  DataView segment = view_of({9, 9, 9, 9});
  TarnSession::make_seg_head(segment, 1, 3, 1);
  EXPECT_EQ(bytes_of_view(segment), (Bytes{0x07, 0, 1, 9}));
}

TEST(SegmentHeadDeathTest, NeedsThreeBytes) {
  DataView small(2);
  EXPECT_ABORT(
      TarnSession::make_seg_head(small, 1, 3, 1),
      assertion_without_line("src/tarn_session", "make_seg_head", "data_view.size() >= 3"));
}

TEST(SegmentHeadDeathTest, InABufferNeedsALengthOf3) {
  char buffer[3] = {};
  TarnSession::make_seg_head_nocp(buffer, 3, 1, 3, 0x0102);
  EXPECT_EQ(std::string(buffer, 3), "\x07\x01\x02");
  EXPECT_ABORT(TarnSession::make_seg_head_nocp(buffer, 2, 1, 3, 1),
               assertion_without_line("src/tarn_session", "make_seg_head_nocp", "len >= 3"));
}

TEST_F(TarnSessionTest, ConvSegmentHoldsTheConv) {
  session_->set_conv(0x01020304);
  DataView segment;
  session_->make_conv(segment);
  EXPECT_EQ(bytes_of_view(segment), (Bytes{0x1B, 0, 4, 1, 2, 3, 4}));
}

TEST_F(TarnSessionTest, Conv0MakesNoSegment) {
  DataView segment;
  session_->make_conv(segment);
  EXPECT_EQ(segment.size(), 0u);
}

TEST_F(TarnSessionTest, ConvIsTakenFromTheStartOfALongerBody) {
  DataView longer = view_of({0, 0, 0, 9, 7});
  EXPECT_TRUE(session_->got_conv(longer));
  EXPECT_EQ(session_->get_conv(), 9u);
}

TEST_F(TarnSessionTest, ConvOf3BytesIsRefused) {
  DataView body = view_of({1, 2, 3});
  EXPECT_FALSE(session_->got_conv(body));
  EXPECT_EQ(session_->get_conv(), 0u);
}

// --- Feedback as views ---

TEST_F(TarnSessionTest, FeedbackIsOneSegmentForEachKind) {
  receive({0, 1, 5, 4});
  DataView ack_segment;
  DataView una_segment;

  session_->make_feedback(ack_segment, una_segment, 100);

  EXPECT_EQ(bytes_of_view(una_segment), una(1));
  EXPECT_EQ(bytes_of_view(ack_segment), ack({5, 4}));
}

TEST_F(TarnSessionTest, FeedbackLeavesAViewAloneThatItHasNothingFor) {
  receive({3});
  DataView ack_segment;
  DataView una_segment;
  session_->make_feedback(ack_segment, una_segment, 100);
  EXPECT_EQ(una_segment.size(), 0u);
  EXPECT_EQ(bytes_of_view(ack_segment), ack({3}));
}

TEST_F(TarnSessionTest, FeedbackNeedsABudgetOf6) {
  receive({0, 4});
  DataView ack_segment;
  DataView una_segment;
  session_->make_feedback(ack_segment, una_segment, 5);
  EXPECT_EQ(una_segment.size() + ack_segment.size(), 0u);
  session_->make_feedback(ack_segment, una_segment, 6);
  EXPECT_EQ(bytes_of_view(una_segment), una(0));
}

TEST_F(TarnSessionTest, HeartbeatSegmentIsNeverMade) {
  DataView segment = view_of({1, 2});
  session_->make_heartbeat(segment);
  EXPECT_EQ(bytes_of_view(segment), (Bytes{1, 2}));
}

TEST_F(TarnSessionTest, HeartbeatIsOnlyLogged) {
  const LogCapture log;
  session_->got_heartbeat();
  EXPECT_EQ(log.count(3, "tarn " + pointer_text(session_.get()) + " got heartbeat"), 1);
  EXPECT_TRUE(errors_.all().empty());
  EXPECT_EQ(sent_.count(), 0u);
}

// --- What the segment handlers answer ---

TEST_F(TarnSessionTest, HandlersSayWhetherTheirSegmentWasGood) {
  DataView good_ack = view_of({0, 1});
  DataView odd_ack = view_of({0, 1, 2});
  DataView empty;
  EXPECT_FALSE(session_->got_ack(odd_ack));
  EXPECT_FALSE(session_->got_ack(empty));
  EXPECT_FALSE(session_->got_una(odd_ack));
  EXPECT_FALSE(session_->got_unreliable(empty));
  EXPECT_FALSE(session_->got_reliable(good_ack, kWhole));
}

TEST_F(TarnSessionTest, HandlersTakeWhatThePeerSends) {
  // The reads want a block that is larger than the integer, as any datagram is.
  const auto body = [](const Bytes& bytes) {
    DataView view = view_of(concat({{'$'}, bytes}));
    view.consume_front(1);
    return view;
  };
  DataView ack_body = body({0, 1, 0, 2});
  DataView una_body = body({0, 1});
  DataView unreliable_body = body({'u'});
  DataView reliable_body = body({0, 0, 'r'});
  DataView conv_body = body({0, 0, 0, 1});
  EXPECT_TRUE(session_->got_ack(ack_body));
  EXPECT_TRUE(session_->got_una(una_body));
  EXPECT_TRUE(session_->got_unreliable(unreliable_body));
  EXPECT_TRUE(session_->got_reliable(reliable_body, kWhole));
  EXPECT_TRUE(session_->got_conv(conv_body));
}

// --- Stopping ---

TEST_F(TarnSessionTest, ByeOfARunningSessionIsSentWithFeedback) {
  receive({0});
  session_->bye();
  EXPECT_EQ(sent_.all(), std::vector<Bytes>{datagram({una(0), bye()})});
}

TEST_F(TarnSessionTest, StopLogsItsStepsAndSendsNothing) {
  const LogCapture log(3);
  const std::string name = "tarn " + pointer_text(session_.get());

  session_->stop();

  EXPECT_EQ(log.count(3, name + " stop"), 1);
  EXPECT_EQ(log.count(3, name + " send bye"), 1);
  EXPECT_EQ(sent_.count(), 0u);
}

TEST_F(TarnSessionTest, StopCancelsTheCycleAndTheReSends) {
  const LogCapture log(2);

  session_->stop();

  EXPECT_EQ(log.count_containing("cancel_timer id: "), 2);
}

TEST_F(TarnSessionTest, StopAfterThePeersByeDoesNotEvenLogOne) {
  session_->input(view_of(datagram({bye()})));
  const LogCapture log(3);

  session_->stop();

  EXPECT_EQ(log.count_containing("send bye"), 0);
}

TEST_F(TarnSessionTest, AStoppedSessionDoesNothing) {
  DataView message = owned_view("message");
  bool keep = true;
  session_->stop();
  const LogCapture log(3);
  session_->error(TARN_ERROR_INACTIVE);
  session_->send_reliable(message, kWhole);
  session_->send_unreliable(message);
  session_->output(message, true);
  session_->recv_reliable(message);
  session_->recv_unreliable(message);
  session_->resend(0, message, &keep);

  EXPECT_TRUE(errors_.all().empty());
  EXPECT_EQ(sent_.count() + received_.count(), 0u);
  EXPECT_FALSE(keep);
  EXPECT_EQ(log.count_containing("resend seq"), 0);
}

TEST_F(TarnSessionTest, AStoppedSessionTakesNoFeedback) {
  DataView message = owned_view("message");
  char buffer[32] = {};
  receive({0, 4});
  session_->stop();

  session_->cycle_feedback();
  session_->send_reliable(message, kWhole);
  session_->send_unreliable(message);
  session_->send_unreliable(buffer, 20);

  DataView ack_segment;
  DataView una_segment;
  session_->make_feedback(ack_segment, una_segment, 100);
  EXPECT_EQ(bytes_of_view(una_segment), una(0)) << "it is still there to report";
  EXPECT_EQ(bytes_of_view(ack_segment), ack({4}));
}

// --- Silence ---

TEST_F(TarnSessionTest, SilenceOfExactlyTheTimeoutIsNone) {
  clock_.advance_ms(5000);
  worker_turn();  // its cycles have seen it; the next one is due in 50 ms
  session_->cycle_check_active();
  EXPECT_EQ(errors_.count(TARN_ERROR_INACTIVE), 0);
  clock_.advance_ms(1);
  session_->cycle_check_active();
  EXPECT_EQ(errors_.count(TARN_ERROR_INACTIVE), 1);
}

TEST_F(TarnSessionTest, ReSendingKeepsThePacketOfARunningSession) {
  bool keep = true;
  session_->resend(0, view_of(reliable(0, {'x'})), &keep);
  EXPECT_TRUE(keep);
  EXPECT_EQ(sent_.all(), std::vector<Bytes>{datagram({reliable(0, {'x'})})});
}

TEST_F(TarnSessionTest, OutputOfNothingIsAHeader) {
  session_->output(DataView(), true);
  EXPECT_EQ(sent_.all(), (std::vector<Bytes>{{'$', 0}}));
}

// --- Messages that somebody else has taken off the wire ---

TEST_F(TarnSessionTest, DeliversAMessageOfEitherChannel) {
  DatagramRecorder unreliable_received;
  session_->set_recv_unreliable_callback(DatagramRecorder::on_data, &unreliable_received);

  session_->recv_reliable(view_of({1, 2}));
  session_->recv_unreliable(view_of({3}));

  EXPECT_EQ(received_.all(), (std::vector<Bytes>{{1, 2}}));
  EXPECT_EQ(unreliable_received.all(), (std::vector<Bytes>{{3}}));
}

// --- Lengths that an int cannot tell ---

TEST_F(TarnSessionTest, AMessageTooLongForTheCallbackIsLoggedAndDropped) {
  char byte = 0;
  const LogCapture log(1);

  session_->recv_reliable(DataView(&byte, INT_MAX + 1ul));

  EXPECT_EQ(received_.count(), 0u);
  EXPECT_EQ(log.count(1, "tarn " + pointer_text(session_.get()) +
                             " recv reliable len 2147483648 too large"),
            1);
}

TEST_F(TarnSessionTest, TheLongestMessageThatAnIntCanTellIsDelivered) {
  struct Seen {
    int len = 0;
    static int on_data(char*, int len, void* self) {
      static_cast<Seen*>(self)->len = len;
      return 0;
    }
  } seen;
  char byte = 0;
  session_->set_recv_reliable_callback(Seen::on_data, &seen);

  session_->recv_reliable(DataView(&byte, INT_MAX));

  EXPECT_EQ(seen.len, INT_MAX);
}

TEST_F(TarnSessionTest, ADatagramTooLongForTheCallbackIsLoggedAndDropped) {
  char byte = 0;
  const LogCapture log(1);

  // Header and segment head make it 2147483648 + 4 bytes.
  DataView message(&byte, INT_MAX);
  session_->send_unreliable(message);

  EXPECT_EQ(sent_.count(), 0u);
  EXPECT_EQ(
      log.count(1, "tarn " + pointer_text(session_.get()) + " output size 2147483652 too large"),
      1);
}

TEST_F(TarnSessionTest, ALentBufferTooLongForTheCallbackIsLoggedAndDropped) {
  char prefix[12] = {};
  const LogCapture log(1);

  session_->send_unreliable(prefix, INT_MAX - 11);

  EXPECT_EQ(sent_.count(), 0u);
  EXPECT_EQ(
      log.count(1, "tarn " + pointer_text(session_.get()) + " output size 2147483648 too large"),
      1);
}

TEST_F(TarnSessionTest, TheLongestLentBufferIsHandedOn) {
  struct Seen {
    int len = 0;
    static int on_data(char*, int len, void* self) {
      static_cast<Seen*>(self)->len = len;
      return 0;
    }
  } seen;
  char prefix[12] = {};
  session_->set_output_callback(Seen::on_data, &seen);

  session_->send_unreliable(prefix, INT_MAX - 12);

  EXPECT_EQ(seen.len, INT_MAX);
  session_->set_output_callback(nullptr, nullptr);
}
