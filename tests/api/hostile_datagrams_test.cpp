// Bytes that no honest peer sends. Whatever arrives, the session lives and goes on working.
#include <random>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

Bytes random_bytes(std::mt19937_64& random, size_t largest) {
  Bytes bytes(random() % (largest + 1));
  for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
  return bytes;
}

// A segment that may be right, wrong in its body or wrong in its length.
Bytes random_segment(std::mt19937_64& random) {
  const auto number = static_cast<uint16_t>(random() % 3 == 0 ? random() : random() % 50);
  const int flag = static_cast<int>(random() % 4);
  switch (random() % 10) {
    case 0:
    case 1:
    case 2:
      return reliable(number, random_bytes(random, 30), flag);
    case 3:
      return unreliable(random_bytes(random, 30));
    case 4:
      return una(number);
    case 5:
      return ack({number, static_cast<uint16_t>(random()), number});
    case 6:
      return conv(static_cast<uint32_t>(random()));
    case 7:
      return segment(static_cast<int>(random() % 64), flag, random_bytes(random, 10));
    case 8:
      return segment(static_cast<int>(random() % 7), flag, random_bytes(random, 5));
    default:
      return lying_segment(static_cast<int>(random() % 7), flag,
                           static_cast<unsigned>(random() % 40), random_bytes(random, 20));
  }
}

void mutate(Bytes& bytes, std::mt19937_64& random) {
  for (auto changes = random() % 4; changes > 0 && !bytes.empty(); --changes) {
    const size_t at = random() % bytes.size();
    switch (random() % 4) {
      case 0:
        bytes[at] = static_cast<unsigned char>(random());
        break;
      case 1:
        bytes[at] ^= static_cast<unsigned char>(1u << random() % 8);
        break;
      case 2:
        bytes.resize(at);
        break;
      default:
        bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(at), 0xFF);
        break;
    }
  }
}

Bytes hostile(std::mt19937_64& random) {
  if (random() % 10 == 0) return random_bytes(random, 60);
  Bytes bytes = datagram({});
  for (auto segments = random() % 5; segments > 0; --segments) {
    bytes = concat({bytes, random_segment(random)});
  }
  if (random() % 3 == 0) mutate(bytes, random);
  return bytes;
}

class HostileDatagrams : public SessionFixture {
 protected:
  // The last number that the session has delivered in order, from its own mouth.
  uint16_t delivered_so_far(Endpoint& a) {
    a.input(datagram({reliable(0, {1})}));
    // One of any two numbers half a ring apart is a repeat, and a repeat brings una. The other one
    // may only end up in the buffer.
    a.input(datagram({reliable(32768, {1})}));
    for (int cycle = 0; cycle < 200; ++cycle) {
      advance(50);
      const auto unas = segments_of_type(a.sent.all(), kUna);
      if (!unas.empty()) return unas.back().seq();
    }
    ADD_FAILURE() << "no una";
    return 0;
  }

  void expect_working(Endpoint& a) {
    a.clear();
    const uint16_t last = delivered_so_far(a);
    a.clear();

    a.input(datagram({unreliable(bytes_of("still here"))}));
    a.input(datagram({reliable(static_cast<uint16_t>(last + 1), bytes_of("good"), kLast)}));
    EXPECT_EQ(a.unreliable_received.all(), std::vector<Bytes>{bytes_of("still here")});
    ASSERT_GE(a.reliable_received.count(), 1u);
    const Bytes message = a.reliable_received.at(0);
    ASSERT_GE(message.size(), 4u);
    EXPECT_EQ(Bytes(message.end() - 4, message.end()), bytes_of("good"));

    const size_t before = a.sent_numbers().size();
    a.send("answer");
    ASSERT_EQ(a.sent_numbers().size(), before + 1);
    advance(60);
    EXPECT_GT(a.sent_numbers().size(), before + 1);
  }

  void storm(uint64_t seed, int datagrams) {
    tarn_config_active_timeout(0xFFFFFFFF);
    Endpoint a;
    std::mt19937_64 random(seed);
    for (int i = 0; i < datagrams; ++i) {
      a.input(hostile(random));
      if (i % 100 == 0) a.send("x");
      if (i % 500 == 0) {
        advance(30);
        a.clear();
      }
    }
    expect_working(a);
  }
};

}  // namespace

TEST_F(HostileDatagrams, AStormOfMutatedDatagramsIsSurvived) {
  for (uint64_t seed = 0; seed < 10; ++seed) storm(seed, 14000);
}

TEST_F(HostileDatagrams, AStormUnderSmallWindowsIsSurvived) {
  tarn_config_recv_window_size(4);
  tarn_config_send_window_size(4);
  tarn_config_mtu(20);
  for (uint64_t seed = 100; seed < 103; ++seed) storm(seed, 10000);
}

TEST_F(HostileDatagrams, AStormUnderAHugeReceiveWindowIsSurvived) {
  tarn_config_recv_window_size(100000);
  for (uint64_t seed = 200; seed < 203; ++seed) storm(seed, 10000);
}

TEST_F(HostileDatagrams, EveryOneByteChangeOfADatagramIsSurvived) {
  const Bytes whole =
      datagram({conv(5), una(1), ack({3, 4}), reliable(0, {1, 2}), unreliable({3})});
  Endpoint a;
  for (size_t at = 0; at < whole.size(); ++at) {
    for (int value = 0; value < 256; ++value) {
      Bytes changed = whole;
      changed[at] = static_cast<unsigned char>(value);
      a.input(changed);
    }
  }
  expect_working(a);
}

TEST_F(HostileDatagrams, AcknowledgingWhatWasNeverSentIsHarmless) {
  Endpoint a;
  for (uint32_t n = 0; n < 65536; n += 7) {
    a.input(datagram({ack({static_cast<uint16_t>(n)}), una(static_cast<uint16_t>(n))}));
  }
  a.send("x");
  advance(60);
  EXPECT_EQ(a.sent.count(), 2u);
}

TEST_F(HostileDatagrams, AnAckListOf32767NumbersIsTaken) {
  Endpoint a;
  for (int i = 0; i < 5; ++i) a.send("x");
  std::vector<uint16_t> numbers;
  for (int n = 32766; n >= 0; --n) numbers.push_back(static_cast<uint16_t>(n));
  a.sent.clear();

  a.input(datagram({ack(numbers)}));
  advance(60);

  EXPECT_EQ(a.sent.count(), 0u);
}

TEST_F(HostileDatagrams, ADatagramOfManySmallSegmentsIsTakenWhole) {
  Endpoint a;
  Bytes many = datagram({});
  const Bytes one = unreliable({1});
  for (int i = 0; i < 15000; ++i) many.insert(many.end(), one.begin(), one.end());

  a.input(many);

  EXPECT_EQ(a.unreliable_received.count(), 15000u);
}

TEST_F(HostileDatagrams, EveryNumberOfTheRingMayWait) {
  tarn_config_recv_window_size(100000);
  Endpoint a;
  std::mt19937_64 random(5);
  // All over the ring, where the order of numbers is none; each costs a walk through the others.
  for (int i = 0; i < 3000; ++i) {
    a.input(datagram({reliable(static_cast<uint16_t>(1 + random() % 65535), {1})}));
  }

  a.input(datagram({reliable(0, {1})}));

  expect_working(a);
}
