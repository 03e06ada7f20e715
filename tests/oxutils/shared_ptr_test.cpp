#include "oxutils/smart_ptr/shared_ptr.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

using oxutils::make_shared;
using oxutils::shared_ptr;

namespace {

struct Tracked {
  explicit Tracked(int& alive_count, int start = 0) : alive(alive_count), value(start) { ++alive; }
  Tracked(const Tracked&) = delete;
  Tracked& operator=(const Tracked&) = delete;
  virtual ~Tracked() { --alive; }
  int& alive;
  int value;
};

struct Derived : Tracked {
  explicit Derived(int& alive_count, bool& gone_flag) : Tracked(alive_count), gone(gone_flag) {}
  ~Derived() override { gone = true; }
  bool& gone;
};

TEST(SharedPtr, IsTwoWords) { EXPECT_EQ(sizeof(shared_ptr<int>), 2 * sizeof(void*)); }

TEST(SharedPtr, IsEmptyByDefault) {
  const shared_ptr<int> empty;
  EXPECT_EQ(empty.get(), nullptr);
  EXPECT_FALSE(empty);
  EXPECT_EQ(empty.use_count(), 0u);
}

TEST(SharedPtr, TreatsANullPointerAsEmpty) {
  const shared_ptr<int> empty(static_cast<int*>(nullptr));
  EXPECT_EQ(empty.get(), nullptr);
  EXPECT_FALSE(empty);
  EXPECT_EQ(empty.use_count(), 0u);
}

TEST(SharedPtr, OwnsARawPointerWithOneCount) {
  int* raw = new int(7);
  const shared_ptr<int> owner(raw);
  EXPECT_EQ(owner.get(), raw);
  EXPECT_TRUE(owner);
  EXPECT_EQ(owner.use_count(), 1u);
  EXPECT_EQ(*owner, 7);
}

TEST(SharedPtr, GivesAccessToMembers) {
  int alive = 0;
  const shared_ptr<Tracked> owner(new Tracked(alive, 5));
  EXPECT_EQ(owner->value, 5);
  (*owner).value = 6;
  EXPECT_EQ(owner.get()->value, 6);
}

TEST(SharedPtr, PassesMakeSharedArgumentsToTheConstructor) {
  const shared_ptr<std::string> text = make_shared<std::string>(3ul, 'x');
  EXPECT_EQ(*text, "xxx");
  EXPECT_EQ(text.use_count(), 1u);
}

TEST(SharedPtr, CopyAddsACount) {
  const shared_ptr<int> first = make_shared<int>(1);
  const shared_ptr<int> second = first;
  EXPECT_EQ(first.use_count(), 2u);
  EXPECT_EQ(second.use_count(), 2u);
  EXPECT_EQ(second.get(), first.get());
}

TEST(SharedPtr, CopyOfAnEmptyPointerIsEmpty) {
  const shared_ptr<int> empty;
  const shared_ptr<int> copy = empty;
  EXPECT_FALSE(copy);
  EXPECT_EQ(copy.use_count(), 0u);
}

TEST(SharedPtr, DestructionReleasesTheCount) {
  const shared_ptr<int> first = make_shared<int>(1);
  { const shared_ptr<int> second = first; }
  EXPECT_EQ(first.use_count(), 1u);
}

TEST(SharedPtr, LastReleaseDeletesTheObject) {
  int alive = 0;
  {
    const shared_ptr<Tracked> first(new Tracked(alive));
    { const shared_ptr<Tracked> second = first; }
    EXPECT_EQ(alive, 1);
  }
  EXPECT_EQ(alive, 0);
}

TEST(SharedPtr, ResetReleasesAndEmpties) {
  int alive = 0;
  shared_ptr<Tracked> owner(new Tracked(alive));
  owner.reset();
  EXPECT_EQ(alive, 0);
  EXPECT_FALSE(owner);
  EXPECT_EQ(owner.get(), nullptr);
}

TEST(SharedPtr, ResetOfOneOwnerLeavesTheOthers) {
  int alive = 0;
  shared_ptr<Tracked> first(new Tracked(alive));
  const shared_ptr<Tracked> second = first;
  first.reset();
  EXPECT_EQ(alive, 1);
  EXPECT_EQ(second.use_count(), 1u);
}

TEST(SharedPtr, ResetOfAnEmptyPointerDoesNothing) {
  shared_ptr<int> empty;
  empty.reset();
  EXPECT_FALSE(empty);
}

TEST(SharedPtr, AssignmentSharesTheNewAndReleasesTheOld) {
  int alive_old = 0;
  int alive_new = 0;
  shared_ptr<Tracked> target(new Tracked(alive_old));
  const shared_ptr<Tracked> source(new Tracked(alive_new));
  target = source;
  EXPECT_EQ(alive_old, 0);
  EXPECT_EQ(alive_new, 1);
  EXPECT_EQ(source.use_count(), 2u);
}

TEST(SharedPtr, AssignmentToItselfLeavesTheCount) {
  shared_ptr<int> owner = make_shared<int>(1);
  const shared_ptr<int>& itself = owner;
  owner = itself;
  EXPECT_EQ(owner.use_count(), 1u);
  EXPECT_EQ(*owner, 1);
}

TEST(SharedPtr, AssignmentOfTheSameObjectLeavesTheCount) {
  shared_ptr<int> first = make_shared<int>(1);
  const shared_ptr<int> second = first;
  first = second;
  EXPECT_EQ(first.use_count(), 2u);
}

TEST(SharedPtr, AssignmentOfAnEmptyPointerReleases) {
  int alive = 0;
  shared_ptr<Tracked> owner(new Tracked(alive));
  owner = shared_ptr<Tracked>();
  EXPECT_EQ(alive, 0);
  EXPECT_FALSE(owner);
}

struct Node {
  explicit Node(int n) : number(n) {}
  int number;
  shared_ptr<Node> next;
};

TEST(SharedPtr, AssignmentTakesTheNewReferenceBeforeItReleasesTheOld) {
  shared_ptr<Node> head = make_shared<Node>(1);
  head->next = make_shared<Node>(2);
  head = head->next;  // the release of node 1 releases the source of this assignment
  EXPECT_EQ(head->number, 2);
  EXPECT_EQ(head.use_count(), 1u);
}

TEST(SharedPtr, DeletesADerivedObjectThroughItsBase) {
  int alive = 0;
  bool derived_gone = false;
  { const shared_ptr<Tracked> owner(new Derived(alive, derived_gone)); }
  EXPECT_TRUE(derived_gone);
  EXPECT_EQ(alive, 0);
}

TEST(SharedPtr, CountsFromManyThreadsWithoutLoss) {
  int alive = 0;
  {
    const shared_ptr<Tracked> owner(new Tracked(alive));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([owner] {
        for (int round = 0; round < 3000; ++round) {
          const shared_ptr<Tracked> copy = owner;
          shared_ptr<Tracked> other;
          other = copy;
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    threads.clear();
    EXPECT_EQ(owner.use_count(), 1u);
  }
  EXPECT_EQ(alive, 0);
}

TEST(SharedPtr, LastReleaseOnAnyThreadDeletesOnce) {
  for (int round = 0; round < 200; ++round) {
    int alive = 0;
    shared_ptr<Tracked> here(new Tracked(alive));
    shared_ptr<Tracked> there = here;
    std::thread other([&there] { there.reset(); });
    here.reset();
    other.join();
    ASSERT_EQ(alive, 0);
  }
}

}  // namespace
