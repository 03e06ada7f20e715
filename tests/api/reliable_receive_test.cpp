// In order, once, whole: what the reliable callback gets.
#include <atomic>
#include <cstddef>

#include "tests/support/kept.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

using ReliableReceive = SessionFixture;

namespace {

Bytes number(int n) {
  return {static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n), 'm'};
}

Bytes whole(int n) { return datagram({reliable(static_cast<uint16_t>(n), number(n))}); }

std::vector<Bytes> numbers(int from, int to) {
  std::vector<Bytes> all;
  for (int n = from; n <= to; ++n) all.push_back(number(n));
  return all;
}

}  // namespace

TEST_F(ReliableReceive, TheExpectedNumberIsDeliveredAtOnce) {
  Endpoint a;

  a.input(whole(0));

  EXPECT_EQ(a.reliable_received.all(), numbers(0, 0));
  EXPECT_EQ(a.reliable_received.last_thread(), std::this_thread::get_id());
}

TEST_F(ReliableReceive, AnEarlyNumberWaitsAndIsReleasedByTheMissingOne) {
  Endpoint a;

  a.input(whole(0));
  a.input(whole(2));
  EXPECT_EQ(a.reliable_received.count(), 1u);
  a.input(whole(1));

  EXPECT_EQ(a.reliable_received.all(), numbers(0, 2));
}

TEST_F(ReliableReceive, ARunIsReleasedUpToTheNextGap) {
  Endpoint a;
  a.input(whole(0));
  for (const int n : {6, 3, 2, 7, 4}) a.input(whole(n));

  a.input(whole(1));
  EXPECT_EQ(a.reliable_received.all(), numbers(0, 4));
  a.input(whole(5));

  EXPECT_EQ(a.reliable_received.all(), numbers(0, 7));
}

TEST_F(ReliableReceive, EverythingWaitsForNumber0) {
  Endpoint a;
  for (int n = 5; n >= 1; --n) a.input(whole(n));
  EXPECT_EQ(a.reliable_received.count(), 0u);

  a.input(whole(0));

  EXPECT_EQ(a.reliable_received.all(), numbers(0, 5));
}

TEST_F(ReliableReceive, RepeatsAndOldNumbersAreNotDelivered) {
  Endpoint a;
  for (int n = 0; n < 5; ++n) a.input(whole(n));

  for (const int n : {4, 0, 3, 65535, 40000, 4 + 32768}) a.input(whole(n));

  EXPECT_EQ(a.reliable_received.count(), 5u);
  EXPECT_TRUE(a.errors.all().empty());
}

TEST_F(ReliableReceive, AnEarlyNumberReceivedTwiceIsDeliveredOnceAsItCameFirst) {
  Endpoint a;
  a.input(whole(0));
  a.input(datagram({reliable(2, bytes_of("first"))}));
  a.input(datagram({reliable(2, bytes_of("second"))}));

  a.input(whole(1));

  EXPECT_EQ(a.reliable_received.all(),
            (std::vector<Bytes>{number(0), number(1), bytes_of("first")}));
}

TEST_F(ReliableReceive, PiecesAreJoined) {
  Endpoint a;

  a.input(datagram({reliable(0, {1, 2}, kFirst)}));
  a.input(datagram({reliable(1, {3}, kMiddle)}));
  EXPECT_EQ(a.reliable_received.count(), 0u);
  a.input(datagram({reliable(2, {4, 5}, kLast)}));

  EXPECT_EQ(a.reliable_received.all(), (std::vector<Bytes>{{1, 2, 3, 4, 5}}));
}

TEST_F(ReliableReceive, PiecesAreJoinedInTheOrderOfTheirNumbers) {
  Endpoint a;

  a.input(datagram({reliable(2, {4, 5}, kLast), reliable(1, {3}, kMiddle)}));
  a.input(datagram({reliable(0, {1, 2}, kFirst)}));

  EXPECT_EQ(a.reliable_received.all(), (std::vector<Bytes>{{1, 2, 3, 4, 5}}));
}

TEST_F(ReliableReceive, OnlyTheEndMarkSeparatesMessages) {
  Endpoint a;

  // The mark of a beginning is not looked at: an unfinished message joins the next one.
  a.input(datagram({reliable(0, {1}, kMiddle)}));
  a.input(datagram({reliable(1, {2}, kFirst)}));
  a.input(datagram({reliable(2, {3}, kWhole)}));
  a.input(datagram({reliable(3, {4}, kLast)}));

  EXPECT_EQ(a.reliable_received.all(), (std::vector<Bytes>{{1, 2, 3}, {4}}));
}

TEST_F(ReliableReceive, TheBytesOfADatagramAreNotNeededAfterItsInput) {
  Endpoint a;
  char early[] = {'$', 0, 0x01, 0, 3, 0, 1, 'b'};
  char first[] = {'$', 0, 0x02, 0, 3, 0, 0, 'a'};

  tarn_input(a.handle(), early, sizeof early);
  std::fill(early, early + sizeof early, '?');
  tarn_input(a.handle(), first, sizeof first);
  std::fill(first, first + sizeof first, '?');

  EXPECT_EQ(a.reliable_received.all(), std::vector<Bytes>{bytes_of("ab")});
}

TEST_F(ReliableReceive, ACallbackThatChangesItsMessageLeavesTheDatagramAlone) {
  Endpoint a;
  tarn_set_recv_reliable_callback(
      a.handle(),
      [](char* message, int len, void*) {
        std::fill(message, message + len, '?');
        return 0;
      },
      nullptr);
  const Bytes sent = whole(0);
  std::vector<char> fed(sent.begin(), sent.end());

  tarn_input(a.handle(), fed.data(), static_cast<int>(fed.size()));

  EXPECT_EQ(Bytes(fed.begin(), fed.end()), sent);
}

TEST_F(ReliableReceive, AMessageIsAlignedForAnything) {
  Endpoint a;
  auto& misplaced = kept<std::atomic<int>>();
  tarn_set_recv_reliable_callback(
      a.handle(),
      [](char* message, int, void* count) {
        const bool aligned = reinterpret_cast<uintptr_t>(message) % alignof(std::max_align_t) == 0;
        if (!aligned) ++*static_cast<std::atomic<int>*>(count);
        return 0;
      },
      &misplaced);

  // At once; from the buffer; joined; larger than any datagram is expected to be.
  for (const int n : {0, 2, 1}) a.input(whole(n));
  a.input(datagram({reliable(3, number(3), kFirst), reliable(4, number(4), kLast)}));
  a.input(datagram({reliable(5, pattern(5000, 1))}));

  EXPECT_EQ(misplaced, 0);
}

TEST_F(ReliableReceive, NumbersWrapFrom65535To0) {
  Endpoint a;
  size_t delivered = 0;
  for (int n = 0; n < 65536; ++n) a.input(whole(n));
  delivered = a.reliable_received.count();
  a.reliable_received.clear();

  a.input(whole(1));
  a.input(whole(0));

  EXPECT_EQ(delivered, 65536u);
  EXPECT_EQ(a.reliable_received.all(), numbers(0, 1));
}

TEST_F(ReliableReceive, ABodyWithoutPayloadIsLoggedAndIgnored) {
  Endpoint a;
  const LogCapture log(1);

  for (size_t size = 0; size <= 2; ++size) {
    a.input(datagram({segment(kReliable, 3, Bytes(size, 0))}));
    EXPECT_EQ(log.count(1, text("error reliable size %zu", size)), 1);
  }

  EXPECT_EQ(a.reliable_received.count(), 0u);
  a.input(whole(0));
  EXPECT_EQ(a.reliable_received.count(), 1u);
}

TEST_F(ReliableReceive, WithoutACallbackItIsLoggedAndCountsAsDelivered) {
  Endpoint a;
  tarn_set_recv_reliable_callback(a.handle(), nullptr, nullptr);
  const LogCapture log;

  a.input(whole(0));
  tarn_set_recv_reliable_callback(a.handle(), DatagramRecorder::on_data, &a.reliable_received);
  a.input(whole(0));
  a.input(whole(1));

  EXPECT_EQ(log.count(2, text("tarn %p has no reliable callback", a.handle())), 1);
  EXPECT_EQ(a.reliable_received.all(), numbers(1, 1));
}

TEST_F(ReliableReceive, LogsEachSegmentAndEachMessage) {
  Endpoint a;
  const LogCapture log;

  a.input(datagram({reliable(0, {1, 2}, kFirst), reliable(1, {3}, kLast)}));

  EXPECT_EQ(log.count(4, text("tarn %p got reliable seq %u", a.handle(), 0u)), 1);
  EXPECT_EQ(log.count(4, text("tarn %p got reliable seq %u", a.handle(), 1u)), 1);
  EXPECT_EQ(log.count(5, "recv window output seq 0"), 1);
  EXPECT_EQ(log.count(5, "recv window output seq 1"), 1);
  EXPECT_EQ(log.count(5, "staging seq 0 len 2"), 1);
  EXPECT_EQ(log.count(5, text("tarn %p recv reliable len %lu", a.handle(), 3ul)), 1);
}

TEST_F(ReliableReceive, TheWindowLogsAnInOrderSegmentTwiceOnceStarted) {
  Endpoint a;
  const LogCapture log(4);

  a.input(whole(0));
  EXPECT_EQ(log.count_containing(" input seq 0 flag 3 "), 1);
  a.input(whole(1));
  EXPECT_EQ(log.count_containing(" input seq 1 flag 3 "), 2);
  a.input(whole(3));
  EXPECT_EQ(log.count_containing(" input seq 3 flag 3 "), 1);
}

TEST_F(ReliableReceive, AnUnfinishedMessageOfManyPiecesIsHeldAndDeliveredWhole) {
  Endpoint a;
  Bytes expected;
  for (int n = 0; n < 3000; ++n) {
    const Bytes piece = pattern(100, static_cast<unsigned>(n));
    expected.insert(expected.end(), piece.begin(), piece.end());
    const int flag = n == 0 ? kFirst : n == 2999 ? kLast : kMiddle;
    a.input(datagram({reliable(static_cast<uint16_t>(n), piece, flag)}));
  }
  EXPECT_EQ(a.reliable_received.all(), std::vector<Bytes>{expected});
}
