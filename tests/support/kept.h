// Objects for callbacks that may run until the process is gone.
#ifndef TARN_TESTS_SUPPORT_KEPT_H_
#define TARN_TESTS_SUPPORT_KEPT_H_

#include <list>
#include <mutex>
#include <utility>

namespace tarn_test {

// A new T that is never destroyed, yet reachable, so that it is no leak. Any thread.
template <typename T, typename... Args>
T& kept(Args&&... args) {
  static std::mutex& lock = *new std::mutex;
  static std::list<T>& all = *new std::list<T>;
  const std::lock_guard<std::mutex> hold(lock);
  return all.emplace_back(std::forward<Args>(args)...);
}

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_KEPT_H_
