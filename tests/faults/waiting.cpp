#include "tests/faults/waiting.h"

#include <chrono>
#include <thread>

namespace tarn_test {

bool wait_for_condition(const std::function<bool()>& done, int ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  return true;
}

}  // namespace tarn_test
