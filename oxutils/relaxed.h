// relaxed<T>: a plain field that several threads read and write without a lock.
#ifndef TARN_OXUTILS_RELAXED_H_
#define TARN_OXUTILS_RELAXED_H_

#include <atomic>

namespace oxutils {

// Behaves like a T whose reads and writes are whole but unordered: the last writer wins, and a
// reader sees an old or a new value. For flags, ids and settings that guard nothing else.
template <typename T>
class relaxed {
 public:
  constexpr relaxed(T value = T()) : value_(value) {}  // NOLINT(google-explicit-constructor)
  relaxed(const relaxed& other) : value_(other.load()) {}
  relaxed& operator=(const relaxed& other) { return *this = other.load(); }
  relaxed& operator=(T value) {
    value_.store(value, std::memory_order_relaxed);
    return *this;
  }

  operator T() const { return load(); }  // NOLINT(google-explicit-constructor)
  T load() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<T> value_;
};

}  // namespace oxutils

#endif  // TARN_OXUTILS_RELAXED_H_
