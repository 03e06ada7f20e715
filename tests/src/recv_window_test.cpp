// RecvWindow: order, fragments, the buffer.
#include "src/recv_window.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tarn/tarn.h"
#include "tests/support/kit_recv.h"
#include "tests/support/log_capture.h"

using tarn_test::kFirst;
using tarn_test::kLast;
using tarn_test::kMiddle;
using tarn_test::kWhole;
using tarn_test::LogCapture;
using tarn_test::pointer_text;
using Texts = std::vector<std::string>;

namespace {

constexpr int kDefaultSize = 32;

class RecvWindowTest : public ::testing::Test {
 protected:
  ~RecvWindowTest() override { tarn_config_recv_window_size(kDefaultSize); }
  tarn_test::Receiver receiver_;
};

TEST_F(RecvWindowTest, DeliversNumber0AtOnce) {
  EXPECT_TRUE(receiver_.input(0));
  EXPECT_EQ(receiver_.take(), Texts{"0"});
}

TEST_F(RecvWindowTest, DeliversInOrderArrivalsAtOnce) {
  for (const int seq : {0, 1, 2}) {
    EXPECT_TRUE(receiver_.input(seq));
    EXPECT_EQ(receiver_.take(), Texts{std::to_string(seq)});
  }
}

TEST_F(RecvWindowTest, HoldsAnEarlyArrivalUntilTheGapIsFilled) {
  receiver_.input(0);
  EXPECT_TRUE(receiver_.input(2));
  EXPECT_EQ(receiver_.take(), Texts{"0"});
  EXPECT_TRUE(receiver_.input(1));
  EXPECT_EQ(receiver_.take(), (Texts{"1", "2"}));
}

TEST_F(RecvWindowTest, StopsAtTheNextGap) {
  receiver_.input(0);
  for (const int seq : {2, 3, 5, 6}) receiver_.input(seq);
  receiver_.take();
  receiver_.input(1);
  EXPECT_EQ(receiver_.take(), (Texts{"1", "2", "3"}));
  receiver_.input(4);
  EXPECT_EQ(receiver_.take(), (Texts{"4", "5", "6"}));
}

TEST_F(RecvWindowTest, ReleasesWhateverOrderItArrivedIn) {
  receiver_.input(0);
  for (const int seq : {4, 2, 5, 3}) receiver_.input(seq);
  receiver_.take();
  receiver_.input(1);
  EXPECT_EQ(receiver_.take(), (Texts{"1", "2", "3", "4", "5"}));
}

TEST_F(RecvWindowTest, WaitsForNumber0) {
  for (const int seq : {1, 2, 3, 4, 5}) EXPECT_TRUE(receiver_.input(seq));
  EXPECT_EQ(receiver_.take(), Texts{});
  receiver_.input(0);
  EXPECT_EQ(receiver_.take(), (Texts{"0", "1", "2", "3", "4", "5"}));
}

TEST_F(RecvWindowTest, DropsARepeatOfTheLastNumber) {
  receiver_.input(0);
  receiver_.input(1);
  EXPECT_TRUE(receiver_.input(1, "again"));
  EXPECT_EQ(receiver_.take(), (Texts{"0", "1"}));
}

TEST_F(RecvWindowTest, DropsAnOldNumber) {
  for (const int seq : {0, 1, 2, 3}) receiver_.input(seq);
  receiver_.take();
  EXPECT_TRUE(receiver_.input(0, "again"));
  EXPECT_TRUE(receiver_.input(2, "again"));
  EXPECT_EQ(receiver_.take(), Texts{});
  EXPECT_EQ(receiver_.acks(), std::vector<int>{});
}

TEST_F(RecvWindowTest, TakesANumberHalfTheRingAwayForOld) {
  receiver_.input(0);
  EXPECT_TRUE(receiver_.input(32768));
  EXPECT_EQ(receiver_.acks(), std::vector<int>{}) << "it was buffered";
  EXPECT_TRUE(receiver_.input(32767));
  EXPECT_EQ(receiver_.acks(), std::vector<int>{32767});
}

TEST_F(RecvWindowTest, KeepsTheFirstCopyOfAnEarlyArrival) {
  receiver_.input(0);
  receiver_.input(2, "first");
  EXPECT_TRUE(receiver_.input(2, "second"));
  receiver_.input(1);
  EXPECT_EQ(receiver_.take(), (Texts{"0", "1", "first"}));
}

TEST_F(RecvWindowTest, DeliversAnEarlyArrivalOnlyOnceWhenItComesAgain) {
  receiver_.input(0);
  receiver_.input(2);
  receiver_.input(1);
  receiver_.input(2, "again");
  receiver_.input(3);
  EXPECT_EQ(receiver_.take(), (Texts{"0", "1", "2", "3"}));
}

TEST_F(RecvWindowTest, RefusesThe33rdEarlyArrival) {
  receiver_.input(0);
  for (int seq = 2; seq < 2 + kDefaultSize; ++seq) ASSERT_TRUE(receiver_.input(seq));
  EXPECT_FALSE(receiver_.input(34));
  receiver_.input(1);
  EXPECT_EQ(receiver_.take().back(), "33");
}

TEST_F(RecvWindowTest, RefusesARepeatOfAnEarlyArrivalWhenItIsFull) {
  receiver_.input(0);
  for (int seq = 2; seq < 2 + kDefaultSize; ++seq) receiver_.input(seq);
  EXPECT_FALSE(receiver_.input(2));
}

TEST_F(RecvWindowTest, TakesTheNextInOrderWhenItIsFull) {
  receiver_.input(0);
  for (int seq = 2; seq < 2 + kDefaultSize; ++seq) receiver_.input(seq);
  EXPECT_TRUE(receiver_.input(1));
  EXPECT_TRUE(receiver_.input(40)) << "the release made room";
}

TEST_F(RecvWindowTest, LimitsTheBufferBeforeNumber0AsWell) {
  for (int seq = 1; seq <= kDefaultSize; ++seq) ASSERT_TRUE(receiver_.input(seq));
  EXPECT_FALSE(receiver_.input(33));
  EXPECT_TRUE(receiver_.input(0));
  EXPECT_EQ(receiver_.take().size(), 33u);
}

TEST_F(RecvWindowTest, ReadsItsLimitAtEachUse) {
  receiver_.input(0);
  tarn_config_recv_window_size(1);
  EXPECT_TRUE(receiver_.input(2));
  EXPECT_FALSE(receiver_.input(3));
  tarn_config_recv_window_size(2);
  EXPECT_TRUE(receiver_.input(3));
  tarn_config_recv_window_size(0);
  EXPECT_FALSE(receiver_.input(4));
  EXPECT_TRUE(receiver_.input(1));
}

TEST_F(RecvWindowTest, JoinsFragments) {
  receiver_.input(0, "one ", kFirst);
  receiver_.input(1, "message ", kMiddle);
  EXPECT_EQ(receiver_.take(), Texts{});
  receiver_.input(2, "only", kLast);
  EXPECT_EQ(receiver_.take(), Texts{"one message only"});
}

TEST_F(RecvWindowTest, JoinsFragmentsInSequenceOrder) {
  receiver_.input(2, "c", kLast);
  receiver_.input(1, "b", kMiddle);
  receiver_.input(3, "d", kWhole);
  receiver_.input(0, "a", kFirst);
  EXPECT_EQ(receiver_.take(), (Texts{"abc", "d"}));
}

TEST_F(RecvWindowTest, StartsEachMessageAfresh) {
  receiver_.input(0, "a", kFirst);
  receiver_.input(1, "b", kLast);
  receiver_.input(2, "c", kFirst);
  receiver_.input(3, "d", kLast);
  EXPECT_EQ(receiver_.take(), (Texts{"ab", "cd"}));
}

TEST_F(RecvWindowTest, TakesAnyFlagBut1And3ForAnUnfinishedMessage) {
  receiver_.input(0, "a", 7);
  receiver_.input(1, "b", 255);
  EXPECT_EQ(receiver_.take(), Texts{});
  receiver_.input(2, "c", kWhole);
  EXPECT_EQ(receiver_.take(), Texts{"abc"});
}

// Keeps what it is given.
struct Keeper {
  void keep(DataView message) { kept = message; }
  DataView kept;
};

TEST_F(RecvWindowTest, DeliversACopyThatOutlivesTheDatagram) {
  Keeper keeper;
  receiver_.window.set_output_callback(oxutils::Function(&keeper, &Keeper::keep));
  receiver_.input(0, "whole", kWhole);  // the payload is overwritten afterwards
  EXPECT_EQ(tarn_test::text_of(keeper.kept), "whole");
  receiver_.input(1, "in ", kFirst);
  receiver_.input(2, "parts", kLast);
  EXPECT_EQ(tarn_test::text_of(keeper.kept), "in parts");
}

TEST_F(RecvWindowTest, ContinuesAcrossTheWrap) {
  receiver_.input(0);
  for (int seq = 1; seq <= 65534; ++seq) receiver_.input(seq);
  receiver_.input(0, "early after the wrap");
  receiver_.take();
  receiver_.input(65535);
  EXPECT_EQ(receiver_.take(), (Texts{"65535", "early after the wrap"}));
  receiver_.input(1);
  EXPECT_EQ(receiver_.take(), Texts{"1"});
}

TEST_F(RecvWindowTest, WorksWithoutACallback) {
  receiver_.window.set_output_callback(oxutils::Function());
  EXPECT_TRUE(receiver_.input(0));
  EXPECT_EQ(receiver_.una(), 0);
}

TEST_F(RecvWindowTest, LogsWhatComesIn) {
  const LogCapture log;
  const std::string prefix = "tarn " + pointer_text(&receiver_.window) + " input seq ";
  receiver_.input(2, "x", kFirst);
  EXPECT_EQ(log.count(4, prefix + "2 flag 2 "), 1);
  receiver_.input(0);
  EXPECT_EQ(log.count(4, prefix + "0 flag 3 "), 1);
}

TEST_F(RecvWindowTest, LogsTheNextInOrderTwice) {
  receiver_.input(0);
  const LogCapture log;
  receiver_.input(1);
  EXPECT_EQ(log.count(4, "tarn " + pointer_text(&receiver_.window) + " input seq 1 flag 3 "), 2);
}

TEST_F(RecvWindowTest, LogsARepeatAndAnEarlyArrivalOnce) {
  receiver_.input(0);
  const LogCapture log;
  receiver_.input(0);
  receiver_.input(5);
  EXPECT_EQ(log.count_containing("input seq 0 "), 1);
  EXPECT_EQ(log.count_containing("input seq 5 "), 1);
}

TEST_F(RecvWindowTest, LogsOutputAndStaging) {
  const LogCapture log;
  receiver_.input(0, "abc", kFirst);
  EXPECT_EQ(log.count(5, "recv window output seq 0"), 1);
  EXPECT_EQ(log.count(5, "staging seq 0 len 3"), 1);
  receiver_.input(1, "d", kLast);
  EXPECT_EQ(log.count(5, "recv window output seq 1"), 1);
  EXPECT_EQ(log.count_containing("staging"), 1);
}

TEST_F(RecvWindowTest, LogsAFullBuffer) {
  tarn_config_recv_window_size(1);
  receiver_.input(5);
  const LogCapture log;
  receiver_.input(6);
  EXPECT_EQ(
      log.count(4, "tarn " + pointer_text(&receiver_.window) + " recv_buffer_ size 1 max size 1 "),
      1);
}

}  // namespace
