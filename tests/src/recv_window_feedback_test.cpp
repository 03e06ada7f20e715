// RecvWindow: what is to be acknowledged, the direct entries, and calls from its own callback.
#include <gtest/gtest.h>

#include <atomic>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "tarn/tarn.h"
#include "tests/support/kit_recv.h"
#include "tests/support/log_capture.h"

using tarn_test::kWhole;
using tarn_test::LogCapture;
using tarn_test::owned_view;
using Numbers = std::vector<int>;
using Texts = std::vector<std::string>;

namespace {

class RecvFeedback : public ::testing::Test {
 protected:
  void input(std::initializer_list<int> seqs) {
    for (const int seq : seqs) receiver_.input(seq);
  }
  RecvWindow& window() { return receiver_.window; }
  tarn_test::Receiver receiver_;
};

Packet packet(unsigned short seq, const std::string& text, unsigned char last) {
  Packet p;
  p.seq = seq;
  p.data = owned_view(text);
  p.flag = last;
  return p;
}

TEST_F(RecvFeedback, HasNoUnaBeforeNumber0) {
  const LogCapture log;
  input({1, 2});
  EXPECT_EQ(receiver_.una(), -1);
  EXPECT_EQ(log.count_containing("una"), 0) << "it says nothing";
}

TEST_F(RecvFeedback, UnaIsTheLastNumberInOrder) {
  input({0});
  EXPECT_EQ(receiver_.una(), 0);
  input({1, 2, 4});
  EXPECT_EQ(receiver_.una(), 2);
}

TEST_F(RecvFeedback, UnaCountsWhatWasReleased) {
  input({0, 2, 1});
  EXPECT_EQ(receiver_.una(), 2);
}

TEST_F(RecvFeedback, UnaIsReportedOnce) {
  input({0});
  EXPECT_EQ(receiver_.una(), 0);
  EXPECT_EQ(receiver_.una(), -1);
}

TEST_F(RecvFeedback, UnaIsReportedAgainAfterARepeat) {
  input({0, 1});
  receiver_.una();
  input({1});
  EXPECT_EQ(receiver_.una(), 1);
  input({0});
  EXPECT_EQ(receiver_.una(), 1);
}

TEST_F(RecvFeedback, UnaIsNotReportedAgainForAnEarlyArrival) {
  input({0});
  receiver_.una();
  input({2});
  EXPECT_EQ(receiver_.una(), -1);
}

TEST_F(RecvFeedback, UnaFollowsTheWrap) {
  DataView data = owned_view("x");
  input({0});
  window().output(65535, data);
  EXPECT_EQ(receiver_.una(), 65535);
  input({0});
  EXPECT_EQ(receiver_.una(), 0);
}

TEST_F(RecvFeedback, LeavesTheNumberAloneWhenThereIsNoUna) {
  unsigned short una = 4711;
  EXPECT_FALSE(window().get_una(una));
  EXPECT_EQ(una, 4711);
}

TEST_F(RecvFeedback, LogsUna) {
  input({0, 1});
  const LogCapture log;
  receiver_.una();
  EXPECT_EQ(log.count(5, "got una 1"), 1);
  receiver_.una();
  EXPECT_EQ(log.count(5, "una empty,not update"), 1);
}

TEST_F(RecvFeedback, ListsEarlyArrivalsInOrderOfArrival) {
  input({0, 5, 3, 9});
  EXPECT_EQ(receiver_.acks(), (Numbers{5, 3, 9}));
}

TEST_F(RecvFeedback, DoesNotListWhatCameInOrder) {
  input({0, 1, 2});
  EXPECT_EQ(receiver_.acks(), Numbers{});
}

TEST_F(RecvFeedback, ListsARepeatedEarlyArrivalTwice) {
  input({0, 5, 5});
  EXPECT_EQ(receiver_.acks(), (Numbers{5, 5}));
}

TEST_F(RecvFeedback, DoesNotListWhatItRefused) {
  tarn_config_recv_window_size(1);
  input({0, 5, 6});
  tarn_config_recv_window_size(32);
  EXPECT_EQ(receiver_.acks(), Numbers{5});
}

TEST_F(RecvFeedback, UnlistsWhatItReleases) {
  input({0, 2, 2, 4});
  input({1});
  EXPECT_EQ(receiver_.acks(), Numbers{4}) << "every entry of a released number goes";
}

TEST_F(RecvFeedback, HandsOutTheOldestUpToALimit) {
  input({0, 10, 11, 12, 13, 14});
  std::list<unsigned short> out;
  EXPECT_TRUE(window().get_ack(out, 3));
  EXPECT_EQ(out, (std::list<unsigned short>{10, 11, 12}));
  EXPECT_EQ(receiver_.acks(), (Numbers{13, 14}));
}

TEST_F(RecvFeedback, HandsOutBehindWhatIsThere) {
  input({0, 10});
  std::list<unsigned short> out{1, 2};
  EXPECT_TRUE(window().get_ack(out, 5));
  EXPECT_EQ(out, (std::list<unsigned short>{1, 2, 10}));
}

TEST_F(RecvFeedback, ALimitOfZeroTellsThatThereAreSome) {
  input({0, 10});
  std::list<unsigned short> out;
  EXPECT_TRUE(window().get_ack(out, 0));
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(receiver_.acks(), Numbers{10});
}

TEST_F(RecvFeedback, TellsWhenThereAreNone) {
  input({0});
  std::list<unsigned short> out{1};
  EXPECT_FALSE(window().get_ack(out, 5));
  EXPECT_FALSE(window().get_ack(out));
  EXPECT_EQ(out, (std::list<unsigned short>{1}));
}

TEST_F(RecvFeedback, SwapsTheWholeListWithoutALimit) {
  input({0, 10, 11});
  std::list<unsigned short> out{1};
  EXPECT_TRUE(window().get_ack(out));
  EXPECT_EQ(out, (std::list<unsigned short>{10, 11}));
  EXPECT_EQ(receiver_.acks(), Numbers{1});
}

TEST_F(RecvFeedback, StopsListingAt32767Entries) {
  input({0});
  for (int i = 0; i < 32767 + 100; ++i) receiver_.input(5);
  EXPECT_EQ(receiver_.acks().size(), 32767u);
}

// The list was full of mentions of a number that has been released since.
TEST_F(RecvFeedback, WhatItReleasesTakesNoRoomInAFullList) {
  input({0});
  for (int i = 0; i < 32767; ++i) receiver_.input(2);
  input({1, 5});
  EXPECT_EQ(receiver_.acks(), (Numbers{5}));
}

TEST_F(RecvFeedback, OutputOfAPacketStagesUntilTheLast) {
  input({0});
  receiver_.take();
  Packet first = packet(1, "ab", 0);
  Packet last = packet(2, "cd", 1);
  window().output(first);
  EXPECT_EQ(receiver_.take(), Texts{});
  EXPECT_EQ(receiver_.una(), 1);
  window().output(last);
  EXPECT_EQ(receiver_.take(), Texts{"abcd"});
  EXPECT_EQ(receiver_.una(), 2);
}

TEST_F(RecvFeedback, OutputLeavesThePacketToItsOwner) {
  input({0});
  receiver_.take();
  Packet part = packet(1, "ab", 0);
  window().output(part);
  EXPECT_EQ(tarn_test::text_of(part.data), "ab");
  part.seq = 2;
  part.flag = 1;
  window().output(part);
  EXPECT_EQ(receiver_.take(), Texts{"abab"});
  EXPECT_EQ(tarn_test::text_of(part.data), "ab");
}

TEST_F(RecvFeedback, BufferingLeavesThePacketToItsOwner) {
  Packet early = packet(2, "two", 1);
  window().write_to_buffer(early);
  EXPECT_EQ(tarn_test::text_of(early.data), "two");
  EXPECT_EQ(early.seq, 2);
}

TEST_F(RecvFeedback, OutputOfBytesPassesStagingBy) {
  input({0});
  Packet first = packet(1, "staged", 0);
  window().output(first);
  receiver_.take();
  DataView data = owned_view("direct");
  const LogCapture log;
  window().output(7, data);
  EXPECT_EQ(receiver_.take(), Texts{"direct"});
  EXPECT_EQ(log.count(5, "recv window output seq 7"), 1);
  EXPECT_EQ(receiver_.una(), 7);
  receiver_.input(8, " end", kWhole);
  EXPECT_EQ(receiver_.take(), Texts{"staged end"});
}

TEST_F(RecvFeedback, BufferAndReleaseWorkByThemselves) {
  input({0});
  receiver_.take();
  Packet second = packet(2, "two", 1);
  Packet first = packet(1, "one", 1);
  EXPECT_TRUE(window().write_to_buffer(second));
  window().try_release_buffer();
  EXPECT_EQ(receiver_.take(), Texts{});
  EXPECT_TRUE(window().write_to_buffer(first));
  window().try_release_buffer();
  EXPECT_EQ(receiver_.take(), (Texts{"one", "two"}));
  EXPECT_EQ(receiver_.acks(), Numbers{});
}

TEST_F(RecvFeedback, CallbackMayAskForFeedback) {
  Numbers seen;
  receiver_.on_delivery = [&](const std::string&) {
    seen.push_back(receiver_.una());
    receiver_.acks();
  };
  input({0, 2, 1});
  EXPECT_EQ(seen, (Numbers{0, 1, 2}));
}

TEST_F(RecvFeedback, CallbackMayFeedTheNextSegment) {
  receiver_.on_delivery = [&](const std::string& text) {
    if (text == "0") receiver_.input(1);
  };
  input({0, 2});
  EXPECT_EQ(receiver_.take(), (Texts{"0", "1", "2"}));
}

TEST_F(RecvFeedback, CallbackMayFeedWhatIsAboutToBeReleased) {
  receiver_.on_delivery = [&](const std::string& text) {
    if (text == "1") receiver_.input(2, "2 again");
  };
  input({0, 2, 3, 4});
  input({1});
  const Texts delivered = receiver_.take();
  ASSERT_EQ(delivered.size(), 5u);
  EXPECT_EQ(delivered[3], "3");
  EXPECT_EQ(delivered[4], "4");
}

TEST_F(RecvFeedback, FeedbackMayBeTakenOnAnotherThread) {
  std::atomic<bool> done{false};
  std::thread worker([&] {
    while (!done) {
      receiver_.una();
      std::list<unsigned short> out;
      window().get_ack(out, 4);
    }
  });
  for (int seq = 0; seq < 4000; seq += 4) input({seq, seq + 2, seq + 3, seq + 1});
  done = true;
  worker.join();
  EXPECT_EQ(receiver_.take().size(), 4000u);
}

}  // namespace
