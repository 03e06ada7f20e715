#include "tests/sim/fiber.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <utility>

#include "tests/sim/sanitizers.h"

namespace tarn_sim {
namespace {

constexpr size_t kStackSize = 1 << 20;

size_t page_size() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

// The page below is left inaccessible: an overflow is a fault, not damage.
char* map_stack() {
  void* const memory = mmap(nullptr, kStackSize + page_size(), PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED || mprotect(memory, page_size(), PROT_NONE) != 0) abort();
  return static_cast<char*>(memory) + page_size();
}

// The fiber that is being left; whoever arrives tells AddressSanitizer where that stack was.
Fiber* leaving = nullptr;

}  // namespace

Fiber::Fiber() {
#ifdef TARN_SIM_TSAN
  tsan_fiber_ = __tsan_get_current_fiber();
#endif
}

Fiber::Fiber(std::function<void()> body) : body_(std::move(body)), stack_(map_stack()) {
  stack_bottom_ = stack_;
  stack_size_ = kStackSize;
  getcontext(&context_);
  context_.uc_stack.ss_sp = stack_;
  context_.uc_stack.ss_size = kStackSize;
  context_.uc_link = nullptr;
  // makecontext passes ints: the pointer goes in two halves.
  const auto self = reinterpret_cast<uintptr_t>(this);
  makecontext(&context_, reinterpret_cast<void (*)()>(&Fiber::entry), 2,
              static_cast<unsigned int>(self >> 32), static_cast<unsigned int>(self));
#ifdef TARN_SIM_TSAN
  tsan_fiber_ = __tsan_create_fiber(0);
#endif
}

Fiber::~Fiber() {
  // ThreadSanitizer's fiber stays: it would be found to end while its accesses are being ignored.
  if (stack_ == nullptr) return;
  munmap(stack_ - page_size(), kStackSize + page_size());
}

void Fiber::entry(unsigned int high, unsigned int low) {
  reinterpret_cast<Fiber*>(static_cast<uintptr_t>(high) << 32 | low)->run();
}

void Fiber::run() {
#ifdef TARN_SIM_ASAN
  __sanitizer_finish_switch_fiber(nullptr, &leaving->stack_bottom_, &leaving->stack_size_);
#endif
  body_();
  abort();  // a body leaves through switch_to
}

void Fiber::switch_to(Fiber& next) {
  if (&next == this) return;
  leaving = this;
#ifdef TARN_SIM_ASAN
  __sanitizer_start_switch_fiber(&fake_stack_, next.stack_bottom_, next.stack_size_);
#endif
#ifdef TARN_SIM_TSAN
  __tsan_switch_to_fiber(next.tsan_fiber_, __tsan_switch_to_fiber_no_sync);
#endif
  swapcontext(&context_, &next.context_);
#ifdef TARN_SIM_ASAN
  __sanitizer_finish_switch_fiber(fake_stack_, &leaving->stack_bottom_, &leaving->stack_size_);
#endif
}

}  // namespace tarn_sim
