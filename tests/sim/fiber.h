// Fiber: a flow of control with a stack of its own, switched by hand.
#ifndef TARN_TESTS_SIM_FIBER_H_
#define TARN_TESTS_SIM_FIBER_H_

#include <ucontext.h>

#include <cstddef>
#include <functional>

namespace tarn_sim {

// All fibers share one system thread; exactly one runs. The first one made stands for the thread's
// own stack, the others run the function that they were given and must leave through switch_to in
// the end: they never return. The sanitizers are told of every switch. ThreadSanitizer is told that
// a switch orders nothing, so that it sees the fibers as threads and what they share without a lock
// as a race.
class Fiber {
 public:
  // The calling thread's own stack.
  Fiber();
  explicit Fiber(std::function<void()> body);
  ~Fiber();
  Fiber(const Fiber&) = delete;
  Fiber& operator=(const Fiber&) = delete;

  // Leaves this fiber, which is the running one, for `next`. Returns when somebody switches back.
  void switch_to(Fiber& next);

 private:
  static void entry(unsigned int high, unsigned int low);
  void run();

  ucontext_t context_{};
  std::function<void()> body_;
  char* stack_ = nullptr;  // null: the thread's own
  const void* stack_bottom_ = nullptr;
  size_t stack_size_ = 0;
  [[maybe_unused]] void* fake_stack_ = nullptr;  // AddressSanitizer's
  [[maybe_unused]] void* tsan_fiber_ = nullptr;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_FIBER_H_
