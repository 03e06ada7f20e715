// Silence: when ours is broken, when the peer's is told, and when to look again.
#include "src/flow/silence.h"

#include <gtest/gtest.h>

namespace {

TEST(Silence, OursIsBrokenAfterSoLongOnceTheyHaveBeenHeard) {
  EXPECT_FALSE((Silence{100, 0, 99, 0, true, false}).is_ours_over());
  EXPECT_TRUE((Silence{100, 0, 100, 0, true, false}).is_ours_over());
  EXPECT_FALSE((Silence{100, 0, 100, 0, false, false}).is_ours_over());
  EXPECT_FALSE((Silence{0, 0, 100, 0, true, false}).is_ours_over());
}

TEST(Silence, TheirsIsToldOnceAfterSoLongWhetherTheyWereHeardOrNot) {
  EXPECT_FALSE((Silence{0, 100, 0, 99, true, false}).is_peers_over());
  EXPECT_TRUE((Silence{0, 100, 0, 100, true, false}).is_peers_over());
  EXPECT_TRUE((Silence{0, 100, 0, 100, false, false}).is_peers_over());
  EXPECT_FALSE((Silence{0, 100, 0, 100, true, true}).is_peers_over());
  EXPECT_FALSE((Silence{0, 0, 0, 100, true, false}).is_peers_over());
}

TEST(Silence, TheNextLookIsWhenTheFirstCanBeOver) {
  EXPECT_EQ((Silence{0, 0, 5, 5, true, false}).next_look(), 0u);
  EXPECT_EQ((Silence{100, 0, 30, 0, true, false}).next_look(), 70u);
  EXPECT_EQ((Silence{0, 100, 0, 40, true, false}).next_look(), 60u);
  EXPECT_EQ((Silence{100, 100, 30, 40, true, false}).next_look(), 60u);
  EXPECT_EQ((Silence{100, 300, 100, 40, true, false}).next_look(), 100u) << "what is over begins";
  EXPECT_EQ((Silence{100, 300, 500, 500, true, false}).next_look(), 100u);
}

}  // namespace
