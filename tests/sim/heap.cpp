#include "tests/sim/heap.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "tests/sim/sanitizers.h"
#include "tests/sim/scheduler.h"

namespace tarn_sim {
namespace {

// In front of every block. 16 bytes, so that the block stays aligned.
struct alignas(16) Head {
  uint64_t size;
  uint32_t owner;
  uint32_t state;
};
constexpr uint32_t kLibrary = 1;
constexpr uint32_t kSimulator = 0;
constexpr uint32_t kLive = 0x4c495645;
constexpr uint32_t kFreed = 0x46524545;

constexpr unsigned char kGarbage = 0xDB;
constexpr size_t kMostGarbage = 4096;  // bytes damaged and looked at of one block
constexpr size_t kKeptBlocks = 1024;

HeapUse use;

[[noreturn]] void heap_error(const char* what) {
  std::fprintf(stderr, "heap: %s\n", what);
  abort();
}

#if !defined(TARN_SIM_ASAN) && !defined(TARN_SIM_TSAN)

// Freed blocks, oldest first from `next_kept` on.
Head* kept[kKeptBlocks];
size_t next_kept = 0;

unsigned char* bytes_of(Head* head) { return reinterpret_cast<unsigned char*>(head + 1); }

void check_garbage(Head* head) {
  const size_t size = std::min<size_t>(head->size, kMostGarbage);
  const unsigned char* const bytes = bytes_of(head);
  if (head->state != kFreed) heap_error("a freed block's head was written to");
  // Each byte is the one before it, and the first is garbage.
  if (size > 0 && (bytes[0] != kGarbage || std::memcmp(bytes, bytes + 1, size - 1) != 0)) {
    heap_error("a freed block was written to");
  }
}

void let_go(Head* head) {
  std::memset(bytes_of(head), kGarbage, std::min<size_t>(head->size, kMostGarbage));
  Head*& slot = kept[next_kept];
  next_kept = (next_kept + 1) % kKeptBlocks;
  if (slot != nullptr) {
    check_garbage(slot);
    std::free(slot);
  }
  slot = head;
}

#else

void let_go(Head* head) { std::free(head); }

#endif

void* allocate(size_t size) {
  auto* const head = static_cast<Head*>(std::malloc(sizeof(Head) + size));
  if (head == nullptr) heap_error("out of memory");
  const Scheduler* const scheduler = Scheduler::running();
  const bool inside = scheduler != nullptr && scheduler->in_library();
  *head = Head{size, inside ? kLibrary : kSimulator, kLive};
  if (inside) {
    ++use.blocks;
    use.bytes += static_cast<int64_t>(size);
  }
  return head + 1;
}

void release(void* block) {
  if (block == nullptr) return;
  Head* const head = static_cast<Head*>(block) - 1;
  if (head->state != kLive) heap_error("a block is freed that is not live");
  if (head->owner == kLibrary) {
    --use.blocks;
    use.bytes -= static_cast<int64_t>(head->size);
  }
  head->state = kFreed;
  let_go(head);
}

}  // namespace

HeapUse library_heap() { return use; }

}  // namespace tarn_sim

void* operator new(size_t size) { return tarn_sim::allocate(size); }
void* operator new[](size_t size) { return tarn_sim::allocate(size); }
void operator delete(void* block) noexcept { tarn_sim::release(block); }
void operator delete(void* block, size_t) noexcept { tarn_sim::release(block); }
void operator delete[](void* block) noexcept { tarn_sim::release(block); }
void operator delete[](void* block, size_t) noexcept { tarn_sim::release(block); }
