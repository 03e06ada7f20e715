#include "oxutils/smart_ptr/unique_ptr.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "tests/support/kit_death.h"

using oxutils::unique_ptr;

namespace {

constexpr char kSource[] = "oxutils/smart_ptr/unique_ptr";

struct Tracked {
  explicit Tracked(int& alive_count) : alive(alive_count) { ++alive; }
  Tracked(const Tracked&) = delete;
  Tracked& operator=(const Tracked&) = delete;
  ~Tracked() { --alive; }
  int& alive;
  int value = 3;
};

TEST(UniquePtr, IsOneWord) { EXPECT_EQ(sizeof(unique_ptr<int>), sizeof(void*)); }

TEST(UniquePtr, HasASingleOwner) {
  EXPECT_FALSE(std::is_copy_constructible_v<unique_ptr<int>>);
  EXPECT_FALSE(std::is_copy_assignable_v<unique_ptr<int>>);
}

TEST(UniquePtr, IsEmptyByDefault) {
  const unique_ptr<int> empty;
  EXPECT_EQ(empty.get(), nullptr);
  EXPECT_FALSE(empty);
}

TEST(UniquePtr, ResetStoresThePointer) {
  int alive = 0;
  Tracked* raw = new Tracked(alive);
  unique_ptr<Tracked> owner;
  owner.reset(raw);
  EXPECT_EQ(owner.get(), raw);
  EXPECT_TRUE(owner);
  EXPECT_EQ(owner->value, 3);
  EXPECT_EQ(&*owner, raw);
}

TEST(UniquePtr, ResetDeletesTheOldObject) {
  int alive_old = 0;
  int alive_new = 0;
  unique_ptr<Tracked> owner;
  owner.reset(new Tracked(alive_old));
  owner.reset(new Tracked(alive_new));
  EXPECT_EQ(alive_old, 0);
  EXPECT_EQ(alive_new, 1);
}

TEST(UniquePtr, ResetToNullDeletesAndEmpties) {
  int alive = 0;
  unique_ptr<Tracked> owner;
  owner.reset(new Tracked(alive));
  owner.reset(nullptr);
  EXPECT_EQ(alive, 0);
  EXPECT_FALSE(owner);
}

TEST(UniquePtr, ResetToNullIsAllowedWhenEmpty) {
  unique_ptr<int> owner;
  owner.reset(nullptr);
  EXPECT_EQ(owner.get(), nullptr);
}

TEST(UniquePtr, DestructionDeletesTheObject) {
  int alive = 0;
  {
    unique_ptr<Tracked> owner;
    owner.reset(new Tracked(alive));
    EXPECT_EQ(alive, 1);
  }
  EXPECT_EQ(alive, 0);
}

void reset_with_the_pointer_held() {
  unique_ptr<int> owner;
  owner.reset(new int(1));
  owner.reset(owner.get());
}

void access_through_an_empty_pointer() {
  unique_ptr<Tracked> owner;
  static_cast<void>(owner->value);
}

TEST(UniquePtrDeathTest, ResetWithThePointerHeldAborts) {
  EXPECT_ASSERTION(reset_with_the_pointer_held(), kSource, 100, "reset", "(0L == p) || (px != p)");
}

TEST(UniquePtrDeathTest, AccessThroughAnEmptyPointerAborts) {
  EXPECT_ASSERTION(access_through_an_empty_pointer(), kSource, 131, "operator->", "0L != px");
}

}  // namespace
