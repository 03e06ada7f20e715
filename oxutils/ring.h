// ring<T>: a queue that can move its front to its back without allocating.
#ifndef TARN_OXUTILS_RING_H_
#define TARN_OXUTILS_RING_H_

#include <stddef.h>

#include <utility>
#include <vector>

namespace oxutils {

// First in, first out, in one piece of memory, which grows by doubling and does not shrink. T has a
// default value that owns nothing, and moves without throwing. One thread at a time.
template <typename T>
class ring {
 public:
  bool empty() const { return size_ == 0; }
  size_t size() const { return size_; }

  // Requires: i < size(), or not empty().
  const T& operator[](size_t i) const { return slots_[slot(i)]; }
  const T& front() const { return slots_[first_]; }

  void push_back(T value) {
    if (size_ == slots_.size()) grow();
    slots_[slot(size_)] = std::move(value);
    ++size_;
  }

  // Requires: not empty().
  void pop_front() {
    slots_[first_] = T();
    first_ = slot(1);
    --size_;
  }

  // Moves the front to the back, which cannot fail. Requires: not empty().
  void rotate() {
    if (size_ < slots_.size()) slots_[slot(size_)] = std::move(slots_[first_]);
    first_ = slot(1);
  }

 private:
  static constexpr size_t kFirstCapacity = 8;

  // The capacity is a power of two.
  size_t slot(size_t i) const { return (first_ + i) & (slots_.size() - 1); }

  void grow() {
    std::vector<T> larger(slots_.empty() ? kFirstCapacity : 2 * slots_.size());
    for (size_t i = 0; i < size_; ++i) larger[i] = std::move(slots_[slot(i)]);
    slots_.swap(larger);
    first_ = 0;
  }

  std::vector<T> slots_;
  size_t first_ = 0;
  size_t size_ = 0;
};

}  // namespace oxutils

#endif  // TARN_OXUTILS_RING_H_
