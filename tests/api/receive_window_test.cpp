// The buffer of early segments: its limit, and numbers from the whole ring in it.
#include <random>
#include <set>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

using ReceiveWindow = SessionFixture;

namespace {

Bytes whole(int n, unsigned char mark = 0) {
  return datagram({reliable(static_cast<uint16_t>(n), {static_cast<unsigned char>(n >> 8),
                                                       static_cast<unsigned char>(n), mark})});
}

// The numbers of the messages delivered, as their payloads name them.
std::vector<int> delivered(const Endpoint& a) {
  std::vector<int> all;
  for (const Bytes& one : a.reliable_received.all()) all.push_back(one[0] << 8 | one[1]);
  return all;
}

std::vector<int> range(int from, int to) {
  std::vector<int> all;
  for (int n = from; n <= to; ++n) all.push_back(n);
  return all;
}

}  // namespace

TEST_F(ReceiveWindow, The33rdEarlySegmentIsDropped) {
  Endpoint a;
  a.input(whole(0));
  for (int n = 2; n < 34; ++n) a.input(whole(n));
  EXPECT_TRUE(a.errors.all().empty());
  const LogCapture log;

  a.input(whole(34));

  EXPECT_EQ(a.errors.all(), std::vector<int>{TARN_ERROR_RECV_REJECTED});
  EXPECT_EQ(log.count_containing(" recv_buffer_ size 32 max size 32 "), 1);
  a.input(whole(1));
  EXPECT_EQ(delivered(a), range(0, 33));
}

TEST_F(ReceiveWindow, ADroppedSegmentIsNotAcknowledged) {
  tarn_config_recv_window_size(1);
  Endpoint a;
  a.input(whole(2));
  a.input(whole(3));

  advance(50);

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({ack({2})})});
}

TEST_F(ReceiveWindow, TheExpectedNumberPassesAFullBuffer) {
  tarn_config_recv_window_size(2);
  Endpoint a;
  a.input(whole(0));
  a.input(whole(2));
  a.input(whole(3));

  a.input(whole(1));

  EXPECT_EQ(delivered(a), range(0, 3));
  EXPECT_TRUE(a.errors.all().empty());
}

TEST_F(ReceiveWindow, ARepeatThatMeetsAFullBufferIsRejectedToo) {
  tarn_config_recv_window_size(1);
  Endpoint a;
  a.input(whole(2));

  a.input(whole(2));

  EXPECT_EQ(a.errors.count(TARN_ERROR_RECV_REJECTED), 1);
}

TEST_F(ReceiveWindow, ADuplicateIsNoErrorEvenWhenTheBufferIsFull) {
  tarn_config_recv_window_size(1);
  Endpoint a;
  a.input(whole(0));
  a.input(whole(5));

  a.input(whole(0));

  EXPECT_TRUE(a.errors.all().empty());
}

TEST_F(ReceiveWindow, SizeAppliesAtOnce) {
  Endpoint a;
  a.input(whole(0));
  a.input(whole(2));

  tarn_config_recv_window_size(1);
  a.input(whole(3));
  EXPECT_EQ(a.errors.count(TARN_ERROR_RECV_REJECTED), 1);

  tarn_config_recv_window_size(2);
  a.input(whole(3));
  EXPECT_EQ(a.errors.count(TARN_ERROR_RECV_REJECTED), 1);
}

TEST_F(ReceiveWindow, Size0DeliversInOrderOnly) {
  tarn_config_recv_window_size(0);
  Endpoint a;

  a.input(whole(1));
  a.input(whole(0));
  a.input(whole(1));

  EXPECT_EQ(delivered(a), range(0, 1));
  EXPECT_EQ(a.errors.count(TARN_ERROR_RECV_REJECTED), 1);
}

TEST_F(ReceiveWindow, RejectionIsRaisedOnTheFeedingThread) {
  tarn_config_recv_window_size(0);
  Endpoint a;

  a.input(whole(1));

  EXPECT_EQ(a.errors.last_thread(), std::this_thread::get_id());
}

TEST_F(ReceiveWindow, RoomIsFreedByARelease) {
  Endpoint a;
  for (int round = 0; round < 4; ++round) {
    const int base = round * 33;
    for (int n = base + 1; n < base + 33; ++n) a.input(whole(n));
    a.input(whole(base));
  }
  EXPECT_EQ(delivered(a), range(0, 4 * 33 - 1));
  EXPECT_TRUE(a.errors.all().empty());
}

TEST_F(ReceiveWindow, TheStartReleasesTheRunAfter0FromAmongNumbersOfTheWholeRing) {
  tarn_config_recv_window_size(1000);
  for (uint64_t seed = 0; seed < 50; ++seed) {
    Endpoint a;
    std::mt19937_64 random(seed);
    // Nothing that the real stream below would take for its own.
    for (int i = 0; i < 100; ++i) a.input(whole(200 + static_cast<int>(random() % 65336)));
    for (int n = 1; n <= 20; ++n) a.input(whole(n));

    for (int round = 0; round < 2; ++round) {
      for (int n = 0; n <= 20; ++n) a.input(whole(n));
    }

    ASSERT_EQ(delivered(a), range(0, 20)) << seed;
  }
}

TEST_F(ReceiveWindow, EveryNumberIsDeliveredOnceWhateverWaitedBeforeTheStart) {
  tarn_config_recv_window_size(64);
  for (uint64_t seed = 0; seed < 3; ++seed) {
    Endpoint a;
    std::mt19937_64 random(seed);
    for (int i = 0; i < 200; ++i) a.input(whole(static_cast<int>(1 + random() % 65535)));

    for (int n = 0; n < 65536; ++n) a.input(whole(n));

    ASSERT_EQ(delivered(a), range(0, 65535)) << seed;
  }
}

TEST_F(ReceiveWindow, NoCopyOutlivesItsDelivery) {
  tarn_config_recv_window_size(64);
  Endpoint a;
  std::mt19937_64 random(7);
  for (int i = 0; i < 200; ++i) a.input(whole(static_cast<int>(1 + random() % 65535), 1));
  for (int n = 0; n < 65536; ++n) a.input(whole(n));
  a.reliable_received.clear();

  // Round the ring again: whatever is delivered now must be what was sent now.
  for (int n = 0; n < 65536; ++n) a.input(whole(n, 2));

  EXPECT_EQ(delivered(a), range(0, 65535));
  for (const Bytes& one : a.reliable_received.all()) ASSERT_EQ(one[2], 2) << (one[0] << 8 | one[1]);
}

TEST_F(ReceiveWindow, ANumberHalfTheRingAwayIsNotErasedInAnothersPlace) {
  Endpoint a;
  a.input(whole(32769));
  // Equal to the number in the buffer as far as the order goes, so not stored, and sent again
  // later.
  a.input(whole(1));
  a.input(whole(0));
  EXPECT_EQ(delivered(a), range(0, 0));

  for (int n = 1; n <= 32768; ++n) a.input(whole(n));

  EXPECT_EQ(delivered(a), range(0, 32769));
}

TEST_F(ReceiveWindow, MessagesMayBeFedFromInsideTheReliableCallback) {
  struct Feeder {
    void* session;
    std::vector<int> seen;
    static int on_data(char* data, int, void* self) {
      auto* feeder = static_cast<Feeder*>(self);
      const int n = static_cast<unsigned char>(data[1]);
      feeder->seen.push_back(n);
      // Feeds the number after next and then the next one, nested in this delivery.
      if (n % 2 == 0 && n < 20) {
        feed(feeder->session, whole(n + 2));
        feed(feeder->session, whole(n + 1));
      }
      return 0;
    }
  };
  Endpoint a;
  Feeder feeder{a.handle(), {}};
  tarn_set_recv_reliable_callback(a.handle(), Feeder::on_data, &feeder);

  a.input(whole(0));

  EXPECT_EQ(feeder.seen, range(0, 20));
  a.destroy();
}

TEST_F(ReceiveWindow, ANumberDeliveredPastItsBufferedCopyTakesTheCopyWithIt) {
  struct Feeder {
    void* session;
    std::vector<int> marks;
    static int on_data(char* data, int, void* self) {
      auto* feeder = static_cast<Feeder*>(self);
      feeder->marks.push_back(data[2]);
      if (feeder->marks.size() == 1) feed(feeder->session, whole(1, 2));
      return 0;
    }
  };
  Endpoint a;
  Feeder feeder{a.handle(), {}};
  tarn_set_recv_reliable_callback(a.handle(), Feeder::on_data, &feeder);
  a.input(whole(1, 1));

  a.input(whole(0, 0));
  advance(50);

  EXPECT_EQ(feeder.marks, (std::vector<int>{0, 2}));
  // The copy is not acknowledged by itself any more, and does not surface one wrap later.
  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({una(1)})});
  for (int n = 2; n <= 65536; ++n) a.input(whole(n & 0xFFFF, 3));
  EXPECT_EQ(feeder.marks.size(), 2u + 65535);
  a.destroy();
}
