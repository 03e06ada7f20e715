// PeerWindow: how far to run ahead of a peer that says nothing of what it refuses.
#include "src/flow/peer_window.h"

#include <gtest/gtest.h>

namespace {

constexpr uint32_t kWindow = 1024;

PeerWindow learned() {
  PeerWindow window;
  window.set(-1);
  return window;
}

// Many segments are overdue, few of which can have been lost.
PeerWindow refusing(uint32_t kept) {
  PeerWindow window = learned();
  window.on_progress(500, true);
  window.on_gap(kept, 200);
  return window;
}

TEST(PeerWindow, IsNoLimitUnlessOneIsSet) {
  PeerWindow window;
  EXPECT_EQ(window.ahead(kWindow), SendRoom::kMostAhead);
  window.set(7);
  EXPECT_EQ(window.ahead(kWindow), 7u);
  window.on_progress(100, true);
  window.on_gap(50, 50);
  EXPECT_EQ(window.ahead(kWindow), 7u);
  window.set(0);
  EXPECT_EQ(window.ahead(kWindow), SendRoom::kMostAhead);
}

TEST(PeerWindow, BeginsWithWhatAPeerKeepsThatHasSetNothing) {
  EXPECT_EQ(learned().ahead(kWindow), 32u);
}

TEST(PeerWindow, GrowsByWhatIsAcknowledgedWhileItIsTheLimit) {
  PeerWindow window = learned();
  window.on_progress(33, false);
  EXPECT_EQ(window.ahead(kWindow), 32u);
  window.on_progress(33, true);
  EXPECT_EQ(window.ahead(kWindow), 65u);
  window.on_progress(5000, true);
  EXPECT_EQ(window.ahead(kWindow), kWindow) << "not beyond the send window";
  EXPECT_EQ(window.ahead(4096), 4096u);
}

TEST(PeerWindow, FollowsWhatWasKeptOnceThePeerHasRefused) {
  struct Row {
    uint32_t kept;
    uint32_t ahead;
  };
  for (const Row& row : {Row{1, 32}, Row{29, 32}, Row{30, 32}, Row{31, 36}, Row{32, 40},
                         Row{33, 44}, Row{64, 168}}) {
    PeerWindow window = refusing(row.kept);
    EXPECT_EQ(window.ahead(kWindow), row.ahead) << row.kept;
    window.on_progress(100, true);
    EXPECT_LE(window.ahead(kWindow), row.ahead) << "nothing grows by itself any more";
  }
}

TEST(PeerWindow, SingleLossesAreNoRefusal) {
  PeerWindow window = learned();
  window.on_progress(100, true);
  window.on_gap(40, 23);
  EXPECT_EQ(window.ahead(kWindow), 132u);
  window.on_gap(40, 24);
  EXPECT_EQ(window.ahead(kWindow), 72u);
}

TEST(PeerWindow, AnOverestimateGoesWithTheRefusalsThatContradictIt) {
  PeerWindow window = refusing(80);
  uint32_t before = window.ahead(kWindow);
  for (int i = 0; i < 100; ++i) {
    window.on_gap(32, 100);
    window.on_progress(33, true);
    EXPECT_LE(window.ahead(kWindow), before);
    before = window.ahead(kWindow);
  }
  EXPECT_LE(before, 32u + 8 + 4 * 8);
}

TEST(PeerWindow, WhatIsOverdueFollowsTheQuickestAcknowledgement) {
  PeerWindow window = learned();
  EXPECT_GT(window.overdue_age(), 1000u * 1000);
  window.on_acknowledged(90);
  EXPECT_EQ(window.overdue_age(), 240u);
  window.on_acknowledged(45);
  window.on_acknowledged(300);
  EXPECT_EQ(window.overdue_age(), 150u);
}

TEST(PeerWindow, IsLearnedAnewOnlyAfterItWasSetOtherwise) {
  PeerWindow window = learned();
  window.on_progress(100, true);
  window.set(-1);
  EXPECT_EQ(window.ahead(kWindow), 132u);
  window.set(50);
  window.set(-1);
  EXPECT_EQ(window.ahead(kWindow), 32u);
}

}  // namespace
