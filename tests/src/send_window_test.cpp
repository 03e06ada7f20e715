// SendWindow: storing and acknowledging.
#include "src/send_window.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/kit_bytes.h"
#include "tests/support/kit_resends.h"
#include "tests/support/kit_worker.h"
#include "tests/support/log_capture.h"
#include "tests/support/virtual_clock.h"

using tarn_test::LogCapture;
using tarn_test::owned_view;

namespace {

constexpr int kDefaultSize = 32;

// With the clock stopped only tick() moves the rotation.
class SendWindowTest : public ::testing::Test {
 protected:
  SendWindowTest() { window_->set_resend_callback(resends_.callback()); }
  ~SendWindowTest() override { tarn_config_send_window_size(kDefaultSize); }

  bool write(int seq, const std::string& text = "packet") {
    DataView packet = owned_view(text);
    return window_->write(static_cast<unsigned short>(seq), packet);
  }
  void ack(int seq) { window_->ack(static_cast<unsigned short>(seq)); }
  void una(int seq) { window_->una(static_cast<unsigned short>(seq)); }
  int count() { return window_->count(); }
  // Everything stored, bucket by bucket in order of the rotation.
  std::vector<int> stored() {
    resends_.take();
    for (int i = 0; i < 4; ++i) window_.tick();
    return resends_.take();
  }

  tarn_test::VirtualClock clock_;
  tarn_test::Resends resends_;
  tarn_test::TestWindow window_;
};

using Seqs = std::vector<int>;

TEST_F(SendWindowTest, IsEmptyAtFirst) {
  EXPECT_EQ(count(), 0);
  EXPECT_EQ(stored(), Seqs{});
}

TEST_F(SendWindowTest, StoresAPacket) {
  EXPECT_TRUE(write(7));
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(stored(), Seqs{7});
}

TEST_F(SendWindowTest, RefusesThe33rdPacket) {
  for (int seq = 0; seq < kDefaultSize; ++seq) ASSERT_TRUE(write(seq));
  EXPECT_FALSE(write(32));
  EXPECT_EQ(count(), 32);
  ack(32);
  EXPECT_EQ(count(), 32) << "the refused packet was stored";
}

TEST_F(SendWindowTest, AcceptsAgainAfterAnAcknowledgement) {
  for (int seq = 0; seq < kDefaultSize; ++seq) write(seq);
  ack(5);
  EXPECT_TRUE(write(32));
  EXPECT_FALSE(write(33));
}

TEST_F(SendWindowTest, ReadsItsSizeAtEachWrite) {
  tarn_config_send_window_size(2);
  EXPECT_TRUE(write(0));
  EXPECT_TRUE(write(1));
  EXPECT_FALSE(write(2));
  tarn_config_send_window_size(3);
  EXPECT_TRUE(write(2));
  tarn_config_send_window_size(0);
  EXPECT_FALSE(write(3));
}

TEST_F(SendWindowTest, KeepsAPrivateCopy) {
  char bytes[] = {'a', 'b', 'c'};
  DataView packet(bytes, sizeof bytes);
  window_->write(1, packet);
  bytes[0] = 'X';
  stored();
  EXPECT_EQ(resends_.texts().at(0), "abc");
}

TEST_F(SendWindowTest, DetachesTheCallersViewAsWell) {
  char bytes[] = {'a', 'b', 'c'};
  DataView packet(bytes, sizeof bytes);
  window_->write(1, packet);
  bytes[0] = 'X';
  EXPECT_EQ(tarn_test::text_of(packet), "abc");
}

TEST_F(SendWindowTest, LeavesTheCallersViewAloneWhenItRefuses) {
  tarn_config_send_window_size(0);
  char bytes[] = {'a', 'b', 'c'};
  DataView packet(bytes, sizeof bytes);
  window_->write(1, packet);
  bytes[0] = 'X';
  EXPECT_EQ(tarn_test::text_of(packet), "Xbc");
}

TEST_F(SendWindowTest, KeepsTheOldPacketUnderTheSameNumberButCountsTheNew) {
  write(5, "old");
  EXPECT_TRUE(write(5, "new"));
  EXPECT_EQ(count(), 2);
  EXPECT_EQ(stored(), Seqs{5});
  EXPECT_EQ(resends_.texts().at(0), "old");
}

TEST_F(SendWindowTest, CountStaysBehindAfterADoubledNumber) {
  write(5);
  write(5);
  ack(5);
  EXPECT_EQ(count(), 1);
  ack(5);
  EXPECT_EQ(count(), 1) << "there is nothing left to acknowledge";
}

TEST_F(SendWindowTest, AckRemovesJustItsPacket) {
  for (const int seq : {1, 2, 3}) write(seq);
  ack(2);
  EXPECT_EQ(count(), 2);
  EXPECT_EQ(stored(), (Seqs{1, 3}));
}

TEST_F(SendWindowTest, AckOfAnUnknownNumberChangesNothing) {
  write(1);
  ack(2);
  ack(1000);
  EXPECT_EQ(count(), 1);
}

TEST_F(SendWindowTest, AckFindsALaterBucket) {
  write(1);
  window_.tick();
  window_.tick();
  write(2);
  ack(2);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(stored(), Seqs{1});
}

TEST_F(SendWindowTest, AckRemovesTheFirstHitOnly) {
  write(9, "bucket 0");
  window_.tick();
  write(9, "bucket 1");
  ack(9);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(stored(), Seqs{9});
  EXPECT_EQ(resends_.texts().back(), "bucket 1");
}

TEST_F(SendWindowTest, UnaRemovesEverythingUpToAndIncludingItself) {
  for (const int seq : {1, 2, 3, 4}) write(seq);
  una(3);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(stored(), Seqs{4});
}

TEST_F(SendWindowTest, UnaReachesEveryBucket) {
  for (int seq = 0; seq < 8; ++seq) {
    write(seq);
    if (seq % 2 == 1) window_.tick();
  }
  una(6);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(stored(), Seqs{7});
}

TEST_F(SendWindowTest, UnaBeforeEverythingChangesNothing) {
  for (const int seq : {10, 11}) write(seq);
  una(9);
  EXPECT_EQ(count(), 2);
}

TEST_F(SendWindowTest, UnaOrdersAcrossTheWrap) {
  for (const int seq : {65534, 65535, 0, 1, 2}) write(seq);
  una(1);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(stored(), Seqs{2});
}

TEST_F(SendWindowTest, UnaTakesANumberHalfTheRingAwayForEqual) {
  write(40000);
  una(40000 - 32768);
  EXPECT_EQ(count(), 0);
}

TEST_F(SendWindowTest, UnaLeavesANumberJustUnderHalfTheRingAhead) {
  write(40000);
  una(40000 - 32767);
  EXPECT_EQ(count(), 1);
}

TEST_F(SendWindowTest, UnaRemovesANumberJustUnderHalfTheRingBehind) {
  write(40000);
  una((40000 + 32767) % 65536);
  EXPECT_EQ(count(), 0);
}

TEST_F(SendWindowTest, UnaLogsEveryBucket) {
  for (const int seq : {1, 2, 3}) write(seq);
  window_.tick();
  for (const int seq : {4, 5}) write(seq);
  const LogCapture log;
  una(4);
  EXPECT_EQ(log.count_containing("send window got una"), 4);
  EXPECT_EQ(log.count(5, "send window got una 4,bucket count 3 -> 0"), 1);
  EXPECT_EQ(log.count(5, "send window got una 4,bucket count 2 -> 1"), 1);
  EXPECT_EQ(log.count(5, "send window got una 4,bucket count 0 -> 0"), 2);
}

TEST_F(SendWindowTest, UnaLogsTheBucketsInOrder) {
  write(1);
  const LogCapture log;
  una(1);
  ASSERT_EQ(log.lines().size(), 4u);
  EXPECT_EQ(log.lines()[0].text, "send window got una 1,bucket count 1 -> 0");
  for (size_t i = 1; i < 4; ++i) {
    EXPECT_EQ(log.lines()[i].text, "send window got una 1,bucket count 0 -> 0");
  }
}

TEST_F(SendWindowTest, LogsItsCallback) {
  const LogCapture log;
  window_->set_resend_callback(resends_.callback());
  EXPECT_EQ(log.count_containing(tarn_test::pointer_text(window_.get()) + " func: "), 1);
  ASSERT_FALSE(log.lines().empty());
  EXPECT_EQ(log.lines().back().level, 3);
}

}  // namespace
