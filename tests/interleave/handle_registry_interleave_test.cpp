// HandleRegistry: what is held is what was asked for and lives, whatever others add and remove.
#include <set>

#include "src/handle_registry.h"
#include "tests/interleave/model_atomic.h"
#include "tests/interleave/scenarios.h"

using namespace tarn_test;

namespace {

class Object;
std::set<const Object*> living;

class Object {
 public:
  explicit Object(void* handle) : handle_(handle) { living.insert(this); }
  ~Object() { expect(living.erase(this) == 1, "an object goes once"); }
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  static bool is_alive(const Object* object) { return living.count(object) != 0; }
  void* handle() const { return handle_; }

 private:
  void* const handle_;
};

void* handle_of(uintptr_t number) { return reinterpret_cast<void*>(number); }

// A registry that has found handle 1 before, so that the cache has it.
template <template <typename> class Atomic>
struct RegistryScenario : Scenario {
  using Registry = HandleRegistry<Object, Atomic>;

  RegistryScenario() {
    living.clear();
    add(1);
    registry.hold(handle_of(1));
  }
  ~RegistryScenario() override { expect(living.empty(), "the last reference goes"); }

  void add(uintptr_t number) {
    registry.add(handle_of(number), oxutils::make_shared<Object>(handle_of(number)));
  }
  // Whether there was such an object; it stays while it is held.
  bool hold(uintptr_t number) {
    const auto hold = registry.hold(handle_of(number));
    if (!hold) return false;
    const Object* const object = hold.pointer().get();
    check(object, number);
    let_others_move();
    expect(hold.pointer().get() == object, "what is held does not change");
    check(object, number);
    return true;
  }
  void check(const Object* object, uintptr_t number) {
    const bool is_alive = Object::is_alive(object);
    expect(is_alive, "what is held lives");
    if (is_alive) expect(object->handle() == handle_of(number), "what is held was asked for");
  }
  // An entry that has been retired twice would be that of two handles now.
  void finish() override {
    for (uintptr_t number = 1; number < 10; ++number) registry.remove(handle_of(number));
    expect(living.empty(), "what is removed goes");
    for (uintptr_t number = 10; number < 14; ++number) add(number);
    for (uintptr_t number = 10; number < 14; ++number) {
      expect(hold_quietly(number), "every entry is retired once");
    }
    for (uintptr_t number = 10; number < 14; ++number) registry.remove(handle_of(number));
  }
  bool hold_quietly(uintptr_t number) {
    const auto hold = registry.hold(handle_of(number));
    return hold && Object::is_alive(hold.pointer().get()) && hold->handle() == handle_of(number);
  }

  Registry registry;
};

template <template <typename> class Atomic>
struct HoldBesideReuse : RegistryScenario<Atomic> {
  void run(size_t number) override {
    if (number != 0) {
      this->hold(1);
      return;
    }
    this->registry.remove(handle_of(1));
    expect(!this->registry.hold(handle_of(1)), "what is removed is not found");
    this->add(2);
    expect(this->hold(2), "what is added is found");
  }
};

TEST(HandleRegistryInterleaving, AHoldBesideRemovalAndReuseOfItsEntry) {
  expect_holds<HoldBesideReuse<ModelAtomic>>(2, 4, 1000);
}

TEST(HandleRegistryInterleaving, TwoHoldsBesideRemovalAndReuseOfTheirEntry) {
  expect_holds<HoldBesideReuse<ModelAtomic>>(3, 3, 1000);
}

struct RemoveTwice : RegistryScenario<ModelAtomic> {
  void run(size_t number) override {
    if (number == 2) {
      hold(1);
    } else {
      removed += registry.remove(handle_of(1)) ? 1 : 0;
    }
  }
  void finish() override {
    expect(removed == 1, "one of them has removed it");
    RegistryScenario::finish();
  }
  int removed = 0;
};

TEST(HandleRegistryInterleaving, OneOfTwoRemovesAndNobodyRetiresTwice) {
  expect_holds<RemoveTwice>(3, 4, 1000);
}

// The same handle again, at once; what an old hold retires may be in its next life.
struct SameHandleAgain : RegistryScenario<ModelAtomic> {
  void run(size_t number) override {
    if (number != 0) {
      hold(1);
      return;
    }
    registry.remove(handle_of(1));
    add(1);
    registry.remove(handle_of(1));
    add(2);
  }
};

TEST(HandleRegistryInterleaving, AHandleThatIsUsedAgainAtOnce) {
  expect_holds<SameHandleAgain>(2, 4, 1000);
}

// So many that one more makes the cache grow.
struct Growth : RegistryScenario<ModelAtomic> {
  static constexpr uintptr_t kFirst = 100;
  static constexpr uintptr_t kCount = 31;

  Growth() {
    for (uintptr_t i = 0; i < kCount; ++i) add(kFirst + i);
  }
  void run(size_t number) override {
    if (number == 0) {
      add(2);
      expect(hold(2), "what is added is found");
    } else {
      expect(hold(1), "what is registered is found");
      expect(hold(kFirst), "what is registered is found");
    }
  }
  void finish() override {
    for (uintptr_t i = 0; i < kCount; ++i) registry.remove(handle_of(kFirst + i));
    RegistryScenario::finish();
  }
};

TEST(HandleRegistryInterleaving, TheCacheGrowsUnderReaders) { expect_holds<Growth>(2, 3, 100); }

}  // namespace
