// ring<T>: order and room.
#include "oxutils/ring.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <random>
#include <vector>

namespace {

using Ring = oxutils::ring<std::shared_ptr<int>>;

std::vector<int> values(const Ring& ring) {
  std::vector<int> all;
  for (size_t i = 0; i < ring.size(); ++i) all.push_back(*ring[i]);
  return all;
}

Ring of(int count) {
  Ring ring;
  for (int i = 0; i < count; ++i) ring.push_back(std::make_shared<int>(i));
  return ring;
}

TEST(Ring, IsEmptyAtFirst) {
  const Ring ring;
  EXPECT_TRUE(ring.empty());
  EXPECT_EQ(ring.size(), 0u);
}

TEST(Ring, KeepsTheOrder) {
  Ring ring = of(3);
  EXPECT_EQ(*ring.front(), 0);
  ring.pop_front();
  EXPECT_EQ(values(ring), (std::vector<int>{1, 2}));
}

TEST(Ring, OwnsNothingThatHasLeftIt) {
  Ring ring;
  const auto value = std::make_shared<int>(1);
  ring.push_back(value);
  ring.push_back(value);
  ring.rotate();
  EXPECT_EQ(value.use_count(), 3);
  ring.pop_front();
  ring.pop_front();
  EXPECT_EQ(value.use_count(), 1);
}

TEST(Ring, MovesItsFrontToItsBackWhetherFullOrNot) {
  for (const int count : {1, 2, 7, 8, 9, 16}) {
    Ring ring = of(count);
    std::vector<int> expected = values(ring);
    for (int i = 0; i < 2 * count + 1; ++i) {
      ring.rotate();
      expected.push_back(expected.front());
      expected.erase(expected.begin());
      ASSERT_EQ(values(ring), expected) << count << " after " << i + 1;
    }
  }
}

TEST(Ring, BehavesAsADeque) {
  std::mt19937 random(1);
  Ring ring;
  std::deque<int> model;
  for (int step = 0; step < 20000; ++step) {
    const auto what = random() % 8;
    if (what < 3 || model.empty()) {
      ring.push_back(std::make_shared<int>(step));
      model.push_back(step);
    } else if (what < 5) {
      ring.pop_front();
      model.pop_front();
    } else {
      ring.rotate();
      model.push_back(model.front());
      model.pop_front();
    }
    ASSERT_EQ(ring.empty(), model.empty());
    ASSERT_EQ(values(ring), std::vector<int>(model.begin(), model.end())) << "step " << step;
  }
}

}  // namespace
