#include "oxutils/smart_ptr/enable_shared_from_this.h"

#include <gtest/gtest.h>

#include "oxutils/smart_ptr/shared_ptr.h"
#include "tests/support/kit_death.h"

using oxutils::make_shared;
using oxutils::shared_ptr;

namespace {

struct Self : oxutils::enable_shared_from_this<Self> {
  int value = 4;
};

TEST(EnableSharedFromThis, HasNoOwnerBeforeItIsWrapped) {
  const Self object;
  EXPECT_TRUE(object.weak_this_.expired());
  EXPECT_FALSE(object.weak_this_.lock());
}

TEST(EnableSharedFromThis, LearnsItsOwnerFromARawPointer) {
  Self* raw = new Self;
  const shared_ptr<Self> owner(raw);
  EXPECT_FALSE(raw->weak_this_.expired());
  EXPECT_EQ(raw->weak_this_.lock().get(), raw);
}

TEST(EnableSharedFromThis, LearnsItsOwnerFromMakeShared) {
  const shared_ptr<Self> owner = make_shared<Self>();
  EXPECT_EQ(owner->weak_this_.lock().get(), owner.get());
}

TEST(EnableSharedFromThis, AddsNoStrongCount) {
  const shared_ptr<Self> owner = make_shared<Self>();
  EXPECT_EQ(owner.use_count(), 1u);
}

TEST(EnableSharedFromThis, ReferenceToItselfSharesTheCount) {
  shared_ptr<Self> owner = make_shared<Self>();
  const shared_ptr<Self> self = owner->weak_this_.lock();
  EXPECT_EQ(self.use_count(), 2u);
  owner.reset();
  EXPECT_EQ(self->value, 4);
}

TEST(EnableSharedFromThis, CopyOfTheOwnerIsNoSecondWrap) {
  const shared_ptr<Self> owner = make_shared<Self>();
  const shared_ptr<Self> copy = owner;
  EXPECT_EQ(copy->weak_this_.lock().get(), owner.get());
}

TEST(EnableSharedFromThis, AcceptsANullPointer) {
  const shared_ptr<Self> empty(static_cast<Self*>(nullptr));
  EXPECT_FALSE(empty);
}

void wrap_twice() {
  Self* raw = new Self;
  const shared_ptr<Self> first(raw);
  const shared_ptr<Self> second(raw);
}

TEST(EnableSharedFromThisDeathTest, SecondWrapOfARawPointerAborts) {
  EXPECT_ASSERTION(wrap_twice(), "oxutils/smart_ptr/enable_shared_from_this", 56,
                   "MaybeSetupWeakThis", "ptr->weak_this_.expired()");
}

}  // namespace
