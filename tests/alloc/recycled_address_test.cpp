// A handle is an address, and here an address that is free is given out again at once, whichever
// thread has freed it. A program of its own, since it replaces operator new.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <thread>
#include <vector>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

// Blocks by size, each with its size in front; what was freed last is taken first.
struct Block {
  size_t index;
  Block* next;
};
constexpr size_t kStep = 16;
constexpr size_t kKinds = 256;
Block* freed[kKinds];
std::atomic_flag busy = ATOMIC_FLAG_INIT;

class Turn {
 public:
  Turn() {
    while (busy.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
  }
  ~Turn() { busy.clear(std::memory_order_release); }
};

Block* take(size_t index) {
  const Turn turn;
  if (index >= kKinds || freed[index] == nullptr) return nullptr;
  Block* const block = freed[index];
  freed[index] = block->next;
  return block;
}

void* get_memory(size_t size) {
  const size_t index = (size + kStep - 1) / kStep;
  Block* block = take(index);
  if (block == nullptr) block = static_cast<Block*>(std::malloc(sizeof(Block) + index * kStep));
  if (block == nullptr) throw std::bad_alloc();
  block->index = index;
  return block + 1;
}

void give_back(void* memory) {
  if (memory == nullptr) return;
  Block* const block = static_cast<Block*>(memory) - 1;
  if (block->index >= kKinds) return std::free(block);
  const Turn turn;
  block->next = freed[block->index];
  freed[block->index] = block;
}

}  // namespace

void* operator new(size_t size) { return get_memory(size); }
// Said as well: a sanitizer's own would be taken otherwise.
void* operator new[](size_t size) { return get_memory(size); }
void operator delete(void* memory) noexcept { give_back(memory); }
void operator delete[](void* memory) noexcept { give_back(memory); }
void operator delete(void* memory, size_t) noexcept { give_back(memory); }
void operator delete[](void* memory, size_t) noexcept { give_back(memory); }

namespace {

using RecycledAddress = SessionFixture;

// More than are freed meanwhile.
std::vector<void*> create_some() {
  std::vector<void*> sessions;
  for (int i = 0; i < 10; ++i) sessions.push_back(tarn_create());
  return sessions;
}

// What happens on the worker: while it deletes one session it is held, and while it deletes another
// one, new ones are made. Nobody else makes any meanwhile.
struct Plan {
  std::string held_at;
  std::string making_at;
  std::atomic<bool> is_held{false};
  std::atomic<bool> goes_on{false};
  std::atomic<bool> has_made{false};
  std::vector<void*> made;
};
std::atomic<Plan*> plan{nullptr};

void follow_plan(int, const char* line) {
  Plan* const current = plan;
  if (current == nullptr) return;
  if (current->held_at == line) {
    current->is_held = true;
    while (!current->goes_on) std::this_thread::yield();
  } else if (!current->has_made && current->making_at == line) {
    current->made = create_some();
    current->has_made = true;
  }
}

TEST_F(RecycledAddress, IsThatOfAnotherSessionSoon) {
  void* const old = tarn_create();
  tarn_destroy(old);
  ASSERT_TRUE(wait_until_gone(old));
  settle();

  const std::vector<void*> sessions = create_some();

  EXPECT_EQ(std::count(sessions.begin(), sessions.end(), old), 1) << "what the next test relies on";
  for (void* const session : sessions) tarn_destroy(session);
  settle();
}

TEST_F(RecycledAddress, ASecondDeletionSparesTheSessionThatHasItByThen) {
  void* const first = tarn_create();
  void* const old = tarn_create();
  void* const between = tarn_create();
  settle();
  Plan current;
  current.held_at = text("tarn %p del", first);
  current.making_at = text("tarn %p del", between);
  plan = &current;
  tarn_set_log_callback2(3, follow_plan);
  tarn_destroy(first);
  ASSERT_TRUE(wait_until([&current] { return current.is_held.load(); }));
  tarn_destroy(old);
  tarn_destroy(between);
  tarn_destroy(old);

  current.goes_on = true;

  ASSERT_TRUE(wait_until([&current] { return current.has_made.load(); }));
  settle();
  plan = nullptr;
  tarn_set_log_callback2(0, nullptr);
  for (void* const session : current.made) {
    tarn_set_conv(session, 5);
    EXPECT_EQ(tarn_get_conv(session), 5u);
    EXPECT_EQ(tarn_destroy(session), 0);
  }
  settle();
}

}  // namespace
