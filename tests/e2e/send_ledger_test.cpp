#include "tools/send_ledger.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

using namespace tarn_tool;

namespace {

std::string number(unsigned value) {
  return {static_cast<char>(value >> 8 & 0xff), static_cast<char>(value & 0xff)};
}

std::string una(unsigned seq) { return std::string("$\0\x0f\0\x02", 5) + number(seq); }

std::string acks(std::initializer_list<unsigned> seqs) {
  std::string datagram("$\0\x0b", 3);
  datagram += number(static_cast<unsigned>(2 * seqs.size()));
  for (const unsigned seq : seqs) datagram += number(seq);
  return datagram;
}

SendLedger ledger_after(int sent) {
  SendLedger ledger;
  for (int i = 0; i < sent; ++i) ledger.sent();
  return ledger;
}

}  // namespace

TEST(SendLedger, CountsWhatWasSent) { EXPECT_EQ(ledger_after(5).outstanding(), 5u); }

TEST(SendLedger, UnaTakesOffEverythingUpToIt) {
  auto ledger = ledger_after(5);
  ledger.received(una(2));
  EXPECT_EQ(ledger.outstanding(), 2u);
}

TEST(SendLedger, AnOldUnaChangesNothing) {
  auto ledger = ledger_after(5);
  ledger.received(una(3));
  ledger.received(una(1));
  ledger.received(una(65535));
  EXPECT_EQ(ledger.outstanding(), 1u);
}

TEST(SendLedger, AnUnaBeyondWhatWasSentTakesOffAll) {
  auto ledger = ledger_after(5);
  ledger.received(una(100));
  EXPECT_EQ(ledger.outstanding(), 0u);
  ledger.sent();
  EXPECT_EQ(ledger.outstanding(), 1u);
}

TEST(SendLedger, AcksTakeOffSingleOnesOnce) {
  auto ledger = ledger_after(5);
  ledger.received(acks({1, 3, 3, 77}));
  EXPECT_EQ(ledger.outstanding(), 3u);
  ledger.received(acks({1}));
  ledger.received(una(3));
  EXPECT_EQ(ledger.outstanding(), 1u);
}

TEST(SendLedger, ReadsAllSegmentsOfADatagram) {
  auto ledger = ledger_after(5);
  ledger.received(una(0) + acks({4}).substr(2));
  EXPECT_EQ(ledger.outstanding(), 3u);
}

TEST(SendLedger, MalformedSegmentsChangeNothing) {
  auto ledger = ledger_after(5);
  ledger.received("");
  ledger.received("A");
  ledger.received(std::string("$\0\x0f\0\x01\0", 6));
  ledger.received(std::string("$\0\x0b\0\x03\0\1\2", 8));
  ledger.received(std::string("$\0\x0f\0\x09\0\1", 7));
  EXPECT_EQ(ledger.outstanding(), 5u);
}

TEST(SendLedger, FollowsTheNumbersAroundTheRing) {
  SendLedger ledger;
  for (unsigned i = 0; i < 200000; ++i) {
    ledger.sent();
    ledger.sent();
    ledger.received(una((2 * i) & 0xffff));
    ASSERT_EQ(ledger.outstanding(), 1u) << i;
  }
}
