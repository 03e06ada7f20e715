#include "oxutils/singleton.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "tests/support/kit_death.h"

using oxutils::singleton;

namespace {

struct Plain : singleton<Plain> {
  int value = 11;
};

struct Other : singleton<Other> {};

// Takes its time, so that several threads find no instance yet.
struct Slow : singleton<Slow> {
  Slow() {
    ++created;
    for (int i = 0; i < 100; ++i) std::this_thread::yield();
    finished = true;
  }
  static inline std::atomic<int> created{0};
  std::atomic<bool> finished{false};
};

struct Counted : singleton<Counted> {
  Counted() { ++created; }
  ~Counted() override { ++destroyed; }
  static inline int created = 0;
  static inline int destroyed = 0;
};

struct Late : singleton<Late> {
  Late() { created = true; }
  static inline bool created = false;
};

struct Unused : singleton<Unused> {};

// Asks for itself while it is built.
struct Nested : singleton<Nested> {
  Nested() { instance(); }
};

// Has another thread ask for the instance when it is told that it can be had.
struct Announced : singleton<Announced> {
  void published() {
    ++told;
    std::thread([] { seen_elsewhere = instance(); }).join();
  }
  static inline int told = 0;
  static inline Announced* seen_elsewhere = nullptr;
};

// Has a way of its own to make the instance.
struct Tailored : singleton<Tailored> {
  explicit Tailored(bool is) : is_tailored(is) {}
  Tailored() : Tailored(false) {}
  static Tailored* make() { return new Tailored(true); }
  const bool is_tailored;
};

// Cannot be built the first time.
struct Hesitant : singleton<Hesitant> {
  Hesitant() {
    if (attempts++ == 0) throw attempts;
  }
  static inline int attempts = 0;
};

struct Lasting : singleton<Lasting> {
  static constexpr bool kLivesForEver = true;
  static bool is_free() { return free_; }
};

struct ExitGuard : singleton<ExitGuard> {
  ~ExitGuard() override { _exit(99); }
};

TEST(Singleton, CreatesWithTheDefaultConstructor) { EXPECT_EQ(Plain::instance()->value, 11); }

TEST(Singleton, ReturnsTheSameObjectEveryTime) {
  EXPECT_EQ(Plain::instance(), Plain::instance());
  EXPECT_EQ(singleton<Plain>::instance(), Plain::instance());
}

TEST(Singleton, IsOnePerType) {
  EXPECT_NE(static_cast<void*>(Plain::instance()), static_cast<void*>(Other::instance()));
}

TEST(Singleton, IsCreatedOnceByEightThreads) {
  constexpr int kThreads = 8;
  std::atomic<int> ready{0};
  std::vector<Slow*> seen(kThreads);
  std::atomic<bool> unfinished{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      ++ready;
      while (ready < kThreads) std::this_thread::yield();
      Slow* instance = Slow::instance();
      if (!instance->finished) unfinished = true;
      seen[static_cast<size_t>(i)] = instance;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(Slow::created, 1);
  EXPECT_EQ(std::set<Slow*>(seen.begin(), seen.end()).size(), 1u);
  EXPECT_FALSE(unfinished);
}

TEST(Singleton, IsNotCreatedBeforeItsFirstUse) {
  EXPECT_FALSE(Late::created);
  Late::instance();
  EXPECT_TRUE(Late::created);
}

TEST(Singleton, AskingWhetherItExistsDoesNotCreateIt) {
  EXPECT_EQ(Unused::existing(), nullptr);
  EXPECT_EQ(Unused::existing(), nullptr);
  Unused* const instance = Unused::instance();
  EXPECT_EQ(Unused::existing(), instance);
}

TEST(SingletonDeathTest, ConstructorThatAsksForItsOwnInstanceAborts) {
  EXPECT_ABORT(Nested::instance(), ::tarn_test::assertion_without_line(
                                       "oxutils/singleton", "create", "hold.owns_lock()"));
}

TEST(Singleton, IsToldOnceAndWithNoLockHeldThatItCanBeHad) {
  Announced* const instance = Announced::instance();
  Announced::instance();
  EXPECT_EQ(Announced::told, 1);
  EXPECT_EQ(Announced::seen_elsewhere, instance);
}

TEST(Singleton, ObjectBesideTheInstanceIsNeitherToldNorMadeLikeIt) {
  EXPECT_TRUE(Tailored::instance()->is_tailored);
  const Tailored beside;
  EXPECT_FALSE(beside.is_tailored);
  const int told = Announced::told;
  { const Announced another; }
  EXPECT_EQ(Announced::told, told);
}

TEST(Singleton, IsMadeByTheNextCallWhenItsConstructorHasThrown) {
  EXPECT_THROW(Hesitant::instance(), int);
  EXPECT_NE(Hesitant::instance(), nullptr);
  EXPECT_EQ(Hesitant::attempts, 2);
}

TEST(Singleton, StaysWhateverBecomesOfOtherObjectsIfItLivesForEver) {
  Lasting* const instance = Lasting::instance();
  { const Lasting beside; }
  EXPECT_EQ(Lasting::existing(), instance);
  EXPECT_FALSE(Lasting::is_free());
}

TEST(Singleton, ObjectBesideTheInstanceMayLiveOnTheStack) {
  const Plain beside;
  EXPECT_NE(&beside, Plain::instance());
}

TEST(Singleton, DestructionOfAnotherObjectTakesTheInstanceDown) {
  Counted::instance();
  const int destroyed = Counted::destroyed;
  { const Counted beside; }
  EXPECT_EQ(Counted::destroyed, destroyed + 2);
}

TEST(Singleton, IsCreatedAgainAfterItWasTakenDown) {
  Counted::instance();
  { const Counted beside; }
  const int created = Counted::created;
  Counted::instance();
  EXPECT_EQ(Counted::created, created + 1);
}

TEST(Singleton, DestructionOfAnObjectWithoutInstanceDestroysJustThat) {
  { const Counted beside; }  // takes down what earlier tests may have left
  const int destroyed = Counted::destroyed;
  { const Counted beside; }
  EXPECT_EQ(Counted::destroyed, destroyed + 1);
}

void exit_with_an_instance() {
  ExitGuard::instance();
  exit(0);
}

TEST(SingletonDeathTest, InstanceOutlivesTheExitOfTheProcess) {
  ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_EXIT(exit_with_an_instance(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
