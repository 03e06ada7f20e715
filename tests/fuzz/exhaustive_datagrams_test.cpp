// Every short datagram there is, and every segment head, through the calls that look at a datagram
// and through a session.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>

#include "tarn/tarn.h"
#include "tests/support/kit_sanitizer.h"

namespace {

struct Answer {
  int check;
  uint32_t conv;
  bool operator==(const Answer& other) const { return check == other.check && conv == other.conv; }
};

// What reaches the application.
struct Tally {
  uint64_t unreliable = 0;        // messages
  uint64_t unreliable_bytes = 0;  // in all of them
  uint64_t reliable = 0;
  uint64_t byes = 0;
};

using Datagram = std::array<unsigned char, 9>;

unsigned number_at(const Datagram& bytes, size_t at) { return bytes[at] * 256U + bytes[at + 1]; }

int check_of_first(const Datagram& bytes, unsigned type, unsigned length) {
  if (type != 0) return 1;
  if (length < 2) return -1;
  return number_at(bytes, 5) == 0 ? 0 : 1;
}

// The format once more, without a line of the library and without an allocation. Adds what a
// session would deliver to `tally`, reliable data apart.
Answer plain_answer(const Datagram& bytes, size_t size, Tally& tally) {
  if (size < 2 || (bytes[0] != '$' && bytes[0] != '#')) return {-1, 0xFFFFFFFF};
  Answer answer{-1, 0};
  bool has_conv = false;
  for (size_t at = 2; at + 3 <= size;) {
    const unsigned type = bytes[at] / 4;
    const unsigned length = number_at(bytes, at + 1);
    if (type == 5 || type > 6 || at + 3 + length > size) break;
    if (at == 2) answer.check = check_of_first(bytes, type, length);
    if (type == 1 && length > 0) {
      ++tally.unreliable;
      tally.unreliable_bytes += length;
    }
    if (type == 4) ++tally.byes;
    if (type == 6 && !has_conv) {
      has_conv = true;
      answer.conv = length < 4 ? 0 : number_at(bytes, at + 3) * 65536 + number_at(bytes, at + 5);
    }
    at += 3 + length;
  }
  return answer;
}

char* chars(Datagram& bytes) { return reinterpret_cast<char*>(bytes.data()); }

Answer library_answer(Datagram& bytes, size_t size) {
  const int len = static_cast<int>(size);
  return {tarn_check_packet(chars(bytes), len), tarn_read_packet_conv(chars(bytes), len)};
}

// There is one thread here, for which the thread sanitizer takes minutes: it gets a sample.
constexpr unsigned kStep = tarn_test::kThreadSanitizer ? 251 : 1;

// Calls `visit` with each of the 16777216 values of three bytes that begin at `at`.
template <typename Visit>
void for_all_of_three_bytes(Datagram& bytes, size_t at, Visit visit) {
  for (unsigned value = 0; value < 1U << 24; value += kStep) {
    bytes[at] = static_cast<unsigned char>(value >> 16);
    bytes[at + 1] = static_cast<unsigned char>(value >> 8);
    bytes[at + 2] = static_cast<unsigned char>(value);
    visit();
  }
}

// Shorter ones are the first bytes of longer ones; each is visited when what follows is zero.
template <typename Visit>
void for_all_of_up_to_three_bytes(Visit visit) {
  Datagram bytes = {};
  visit(bytes, 0);
  for_all_of_three_bytes(bytes, 0, [&] {
    visit(bytes, 3);
    if (bytes[2] == 0) visit(bytes, 2);
    if (bytes[2] == 0 && bytes[1] == 0) visit(bytes, 1);
  });
}

// Bodies of up to four bytes, and what begins inside them when they are shorter.
constexpr Datagram kBeforeFourBytes = {'$', 0, 0, 0, 0, 0x04, 0x00, 0x01, 0x77};

int count_unreliable(char*, int len, void* tally) {
  ++static_cast<Tally*>(tally)->unreliable;
  static_cast<Tally*>(tally)->unreliable_bytes += static_cast<uint64_t>(len);
  return 0;
}

int count_reliable(char*, int, void* tally) {
  ++static_cast<Tally*>(tally)->reliable;
  return 0;
}

int count_bye(TarnError code, void* tally) {
  if (code == TARN_ERROR_BYE) ++static_cast<Tally*>(tally)->byes;
  return 0;
}

class ExhaustiveInput : public ::testing::Test {
 protected:
  ExhaustiveInput() {
    tarn_init();
    session_ = tarn_create();
    tarn_set_recv_unreliable_callback(session_, count_unreliable, &got_);
    tarn_set_recv_reliable_callback(session_, count_reliable, &got_);
    tarn_set_error_callback(session_, count_bye, &got_);
  }
  ~ExhaustiveInput() override { tarn_destroy(session_); }

  void feed(Datagram& bytes, size_t size) {
    tarn_input(session_, chars(bytes), static_cast<int>(size));
  }
  void expect_tally(const Tally& expected) {
    EXPECT_EQ(got_.unreliable, expected.unreliable);
    EXPECT_EQ(got_.unreliable_bytes, expected.unreliable_bytes);
    EXPECT_EQ(got_.byes, expected.byes);
  }

  void* session_ = nullptr;
  // Static: the worker may still be at it when the test has ended.
  static Tally got_;
};

Tally ExhaustiveInput::got_;

}  // namespace

TEST(ExhaustiveInspection, AnswersForEveryDatagramOfUpToThreeBytes) {
  uint64_t wrong = 0;
  uint64_t visited = 0;
  for_all_of_up_to_three_bytes([&](Datagram& bytes, size_t size) {
    Tally unused;
    if (!(library_answer(bytes, size) == plain_answer(bytes, size, unused))) ++wrong;
    ++visited;
  });
  EXPECT_EQ(wrong, 0U);
  if (kStep == 1) {
    EXPECT_EQ(visited, 1U + 256 + 65536 + 16777216);
  }
}

TEST(ExhaustiveInspection, AnswersForEverySegmentHead) {
  Datagram bytes = kBeforeFourBytes;
  uint64_t wrong = 0;
  for_all_of_three_bytes(bytes, 2, [&] {
    Tally unused;
    if (!(library_answer(bytes, 9) == plain_answer(bytes, 9, unused))) ++wrong;
  });
  EXPECT_EQ(wrong, 0U);
}

TEST_F(ExhaustiveInput, MakesNothingOfAnyDatagramOfUpToThreeBytes) {
  got_ = Tally();
  for_all_of_up_to_three_bytes([&](Datagram& bytes, size_t size) { feed(bytes, size); });
  expect_tally(Tally());
  EXPECT_EQ(got_.reliable, 0U);
  EXPECT_EQ(tarn_get_conv(session_), 0U);
}

TEST_F(ExhaustiveInput, DeliversWhatEverySegmentHeadSays) {
  got_ = Tally();
  Tally expected;
  Datagram bytes = kBeforeFourBytes;
  for_all_of_three_bytes(bytes, 2, [&] {
    plain_answer(bytes, 9, expected);
    feed(bytes, 9);
  });
  expect_tally(expected);
  // Four flags and lengths 1 to 4, and what is found inside shorter bodies.
  if (kStep == 1) {
    EXPECT_GE(expected.unreliable, 16U);
    EXPECT_GE(expected.byes, 4U);
  }
}
