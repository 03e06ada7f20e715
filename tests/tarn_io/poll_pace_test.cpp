// PollPace: when the poller keeps a set, and when it looks at each descriptor all the same.
#include "tarn_io/poll_pace.h"

#include <gtest/gtest.h>

namespace {

constexpr size_t kFew = 3;
constexpr size_t kSome = 20;
constexpr size_t kMany = 32;

// Passes that find something until a look is due, at one moment; 0 when none is by then.
int passes_to_look(PollPace& pace, size_t watched) {
  pace.note_look(watched, 0);
  for (int pass = 1; pass <= 2000; ++pass) {
    pace.note_pass(true);
    if (pace.is_look_due(0)) return pass;
  }
  return 0;
}

void pass(PollPace& pace, int count) {
  for (int i = 0; i < count; ++i) pace.note_pass(true);
}

}  // namespace

TEST(PollPace, LooksFirst) { EXPECT_TRUE(PollPace().is_look_due(0)); }

TEST(PollPace, LooksAgainAfter32PassesForEachDescriptor) {
  PollPace pace;

  EXPECT_EQ(passes_to_look(pace, 1), 32);
  EXPECT_EQ(passes_to_look(pace, 3), 96);
  EXPECT_EQ(passes_to_look(pace, 31), 992);
}

TEST(PollPace, LooksAgainAfter1024PassesAtMost) {
  PollPace pace;

  EXPECT_EQ(passes_to_look(pace, 32), 1024);
  EXPECT_EQ(passes_to_look(pace, 33), 1024);
  EXPECT_EQ(passes_to_look(pace, 100'000), 1024);
}

TEST(PollPace, LooksAgainAfterASecondHoweverFewPassesThereWere) {
  PollPace pace;
  pace.note_look(kMany, 5000);
  pace.note_pass(true);

  EXPECT_FALSE(pace.is_look_due(5999));
  EXPECT_TRUE(pace.is_look_due(6000));
}

TEST(PollPace, LooksAgainAfterAPassThatFoundNothing) {
  PollPace pace;
  pace.note_look(kMany, 0);

  pace.note_pass(false);

  EXPECT_TRUE(pace.is_look_due(0));
}

TEST(PollPace, WantsASetOfManyAtOnce) {
  const PollPace pace;

  EXPECT_TRUE(pace.wants_set(kMany));
  EXPECT_FALSE(pace.wants_set(kMany - 1));
}

TEST(PollPace, WantsASetOfLessAfter64PassesInARowThatFoundSomething) {
  PollPace pace;
  pass(pace, 63);
  EXPECT_FALSE(pace.wants_set(kFew));

  pass(pace, 1);

  EXPECT_TRUE(pace.wants_set(kFew));
  EXPECT_TRUE(pace.wants_set(kSome));
}

TEST(PollPace, CountsAnewAfterAPassThatFoundNothing) {
  PollPace pace;
  pass(pace, 63);
  pace.note_pass(false);

  pass(pace, 63);

  EXPECT_FALSE(pace.wants_set(kFew));
}

TEST(PollPace, CountsAnewAndLooksAfterCalmingDown) {
  PollPace pace;
  pace.note_look(kFew, 0);
  pass(pace, 64);

  pace.calm_down();

  EXPECT_TRUE(pace.is_calm());
  EXPECT_TRUE(pace.is_look_due(0));
  EXPECT_FALSE(pace.wants_set(kFew));
}

TEST(PollPace, IsCalmUntilAPassFindsSomething) {
  PollPace pace;
  EXPECT_TRUE(pace.is_calm());

  pace.note_pass(true);

  EXPECT_FALSE(pace.is_calm());
}

TEST(PollPace, WaitsInOneWayForASecondAndWithFewForATenthOfOne) {
  EXPECT_EQ(PollPace::longest_wait(15), 100);
  EXPECT_EQ(PollPace::longest_wait(16), 1000);
}

TEST(PollPace, FewAreLessThan16) {
  EXPECT_TRUE(PollPace::is_few(15));
  EXPECT_FALSE(PollPace::is_few(16));
}
