// SeqLatter: the order of every number against every other.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "src/seq_latter.h"

namespace {

constexpr unsigned kRing = 65536;

// Which steps forward lead to a later number, walked twice around the ring: row `a` of the order
// begins kRing - a in.
std::vector<unsigned char> walk_twice() {
  std::vector<unsigned char> is_later(2 * kRing, 0);
  for (unsigned start = 0; start < 2 * kRing; start += kRing) {
    for (unsigned step = 1; step < kRing / 2; ++step) is_later[start + step] = 1;
  }
  return is_later;
}

// Without a branch in the loop: the compiler makes vectors of it.
bool is_row_right(uint16_t a, const unsigned char* row) {
  unsigned char wrong = 0;
  for (unsigned b = 0; b < kRing; ++b) {
    const unsigned char answer = SeqLatter()(a, static_cast<uint16_t>(b)) ? 1 : 0;
    wrong |= static_cast<unsigned char>(answer ^ row[b]);
  }
  return wrong == 0;
}

}  // namespace

TEST(SeqLatterExhaustive, OrdersAllPairs) {
  const std::vector<unsigned char> is_later = walk_twice();
  std::atomic<unsigned> next{0};
  std::atomic<unsigned> wrong_rows{0};
  const auto check_rows = [&] {
    for (unsigned a = next++; a < kRing; a = next++) {
      if (!is_row_right(static_cast<uint16_t>(a), is_later.data() + kRing - a)) ++wrong_rows;
    }
  };
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < std::max(1U, std::thread::hardware_concurrency()); ++i) {
    threads.emplace_back(check_rows);
  }
  for (std::thread& each : threads) each.join();
  EXPECT_GE(next, kRing);
  EXPECT_EQ(wrong_rows, 0U);
}
