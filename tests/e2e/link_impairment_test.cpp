#include "tools/link_impairment.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

using namespace tarn_tool;
using Fate = LinkImpairment::Fate;

namespace {

LinkImpairment link_of(const LinkSettings& settings, std::uint64_t seed = 1, std::uint32_t peer = 0,
                       std::uint32_t direction = 0) {
  return LinkImpairment(settings, seed, peer, direction);
}

// The fates of `count` datagrams, one each millisecond.
std::vector<bool> losses(LinkImpairment link, int count) {
  std::vector<bool> lost;
  for (int i = 0; i < count; ++i) {
    lost.push_back(link.pass(Microseconds(1000 * i), 100).fate == Fate::kLost);
  }
  return lost;
}

int count_of(const std::vector<bool>& flags) {
  return static_cast<int>(std::count(flags.begin(), flags.end(), true));
}

}  // namespace

TEST(LinkImpairment, AGoodLinkChangesNothing) {
  auto link = link_of({});
  for (int i = 0; i < 1000; ++i) {
    const auto verdict = link.pass(Microseconds(i), 1400);
    EXPECT_EQ(verdict.fate, Fate::kForwarded);
    EXPECT_EQ(verdict.due, Microseconds(i));
    EXPECT_FALSE(verdict.duplicated || verdict.reordered);
  }
}

TEST(LinkImpairment, LosesItsShare) {
  LinkSettings settings;
  settings.loss = 0.1;
  EXPECT_NEAR(count_of(losses(link_of(settings), 10000)), 1000, 120);
}

TEST(LinkImpairment, LosesEverythingOrNothing) {
  LinkSettings settings;
  EXPECT_EQ(count_of(losses(link_of(settings), 1000)), 0);
  settings.loss = 1;
  EXPECT_EQ(count_of(losses(link_of(settings), 1000)), 1000);
}

TEST(LinkImpairment, RepeatsItselfWithTheSameSeed) {
  LinkSettings settings;
  settings.loss = 0.5;
  EXPECT_EQ(losses(link_of(settings, 7), 500), losses(link_of(settings, 7), 500));
}

TEST(LinkImpairment, DiffersBySeedPeerAndDirection) {
  LinkSettings settings;
  settings.loss = 0.5;
  const auto one = losses(link_of(settings, 7, 0, 0), 500);
  EXPECT_NE(one, losses(link_of(settings, 8, 0, 0), 500));
  EXPECT_NE(one, losses(link_of(settings, 7 + (std::uint64_t{1} << 32), 0, 0), 500));
  EXPECT_NE(one, losses(link_of(settings, 7, 1, 0), 500));
  EXPECT_NE(one, losses(link_of(settings, 7, 0, 1), 500));
}

TEST(LinkImpairment, LossDoesNotDependOnTheOtherSettings) {
  LinkSettings plain;
  plain.loss = 0.3;
  LinkSettings rich = plain;
  rich.duplicate = 0.2;
  rich.reorder = 0.2;
  rich.delay = Microseconds(5000);
  rich.jitter = Microseconds(2000);
  EXPECT_EQ(losses(link_of(plain), 500), losses(link_of(rich), 500));
}

TEST(LinkImpairment, DuplicatesItsShare) {
  LinkSettings settings;
  settings.duplicate = 0.2;
  auto link = link_of(settings);
  int duplicated = 0;
  for (int i = 0; i < 10000; ++i) duplicated += link.pass(Microseconds(i), 100).duplicated ? 1 : 0;
  EXPECT_NEAR(duplicated, 2000, 200);
}

TEST(LinkImpairment, JitterStaysWithinItsBoundsAndKeepsTheOrder) {
  LinkSettings settings;
  settings.delay = Microseconds(20000);
  settings.jitter = Microseconds(5000);
  auto link = link_of(settings);
  Microseconds last(0);
  for (int i = 0; i < 1000; ++i) {
    const Microseconds now(100 * i);
    const auto verdict = link.pass(now, 100);
    EXPECT_GE(verdict.due, now + Microseconds(15000));
    EXPECT_GE(verdict.due, last);
    last = verdict.due;
  }
  EXPECT_LE(last, Microseconds(99900 + 25000));
}

TEST(LinkImpairment, ReorderedOnesAreOvertaken) {
  LinkSettings settings;
  settings.reorder = 0.05;
  auto link = link_of(settings);
  int overtaken = 0;
  Microseconds held(0);
  for (int i = 0; i < 1000; ++i) {
    const auto verdict = link.pass(Microseconds(1000 * i), 100);
    if (verdict.due < held) ++overtaken;
    if (verdict.reordered) {
      EXPECT_GE(verdict.due, Microseconds(1000 * i + 5000));
      EXPECT_LE(verdict.due, Microseconds(1000 * i + 25000));
      held = verdict.due;
    }
  }
  EXPECT_GT(overtaken, 100);
}

TEST(LinkImpairment, ARateSpacesDatagrams) {
  LinkSettings settings;
  settings.rate = 8000000;  // one byte per microsecond
  auto link = link_of(settings);
  EXPECT_EQ(link.pass(Microseconds(0), 1000).due, Microseconds(1000));
  EXPECT_EQ(link.pass(Microseconds(0), 1000).due, Microseconds(2000));
  EXPECT_EQ(link.pass(Microseconds(5000), 1000).due, Microseconds(6000));
}

TEST(LinkImpairment, AFullQueueDropsTheNewest) {
  LinkSettings settings;
  settings.rate = 8000000;
  settings.queue_bytes = 3000;
  auto link = link_of(settings);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(link.pass(Microseconds(0), 1000).fate, Fate::kForwarded);
  EXPECT_EQ(link.pass(Microseconds(0), 1000).fate, Fate::kQueueFull);
  EXPECT_EQ(link.pass(Microseconds(1000), 1000).fate, Fate::kForwarded);
}

TEST(LinkImpairment, AnIdleLinkTakesWhatIsLargerThanItsQueue) {
  LinkSettings settings;
  settings.rate = 8000000;
  settings.queue_bytes = 0;
  auto link = link_of(settings);
  EXPECT_EQ(link.pass(Microseconds(0), 1000).fate, Fate::kForwarded);
  EXPECT_EQ(link.pass(Microseconds(500), 1000).fate, Fate::kQueueFull);
  EXPECT_EQ(link.pass(Microseconds(1000), 1000).fate, Fate::kForwarded);
}

TEST(LinkImpairment, TheQueueHolds100MsUnlessToldOtherwise) {
  LinkSettings settings;
  EXPECT_EQ(queue_limit(settings), 65536u);
  settings.rate = 20000000;
  EXPECT_EQ(queue_limit(settings), 250000u);
  settings.queue_bytes = 5;
  EXPECT_EQ(queue_limit(settings), 5u);
}
