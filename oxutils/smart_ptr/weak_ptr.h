// weak_ptr: observes an object that shared_ptrs own.
#ifndef TARN_OXUTILS_SMART_PTR_WEAK_PTR_H_
#define TARN_OXUTILS_SMART_PTR_WEAK_PTR_H_

#include <utility>

#include "oxutils/smart_ptr/control_block.h"

namespace oxutils {

template <typename T>
class shared_ptr;

// Two words, the object and its control block, both null when empty. Holds a weak count: the block
// outlives the object for as long as a weak_ptr refers to it. Distinct weak_ptrs may be used on
// distinct threads; one weak_ptr on one thread at a time.
template <typename T>
class weak_ptr {
 public:
  weak_ptr() = default;
  weak_ptr(const shared_ptr<T>& owner)  // NOLINT(google-explicit-constructor)
      : weak_ptr(owner.px_, owner.block_) {}
  weak_ptr(const weak_ptr& other) : weak_ptr(other.px_, other.block_) {}
  ~weak_ptr() { release(block_); }

  weak_ptr& operator=(const shared_ptr<T>& owner) {
    assign(owner.px_, owner.block_);
    return *this;
  }
  weak_ptr& operator=(const weak_ptr& other) {
    assign(other.px_, other.block_);
    return *this;
  }

  // True when there is no object, or its last shared_ptr has gone.
  bool expired() const { return block_ == nullptr || block_->ref_count() == 0; }

  // A counted reference to the object, or an empty pointer if it is gone. Never a dying object,
  // also when the last shared_ptr is being released on another thread.
  shared_ptr<T> lock() const {
    if (block_ == nullptr || !block_->inc_ref_if_live()) return shared_ptr<T>();
    return shared_ptr<T>(px_, block_);
  }

 private:
  weak_ptr(T* px, ControlBlock* block) : px_(px), block_(block) {
    if (block_ != nullptr) block_->inc_weak();
  }

  // The new count is taken before the old one is given up: both may be the same block.
  void assign(T* px, ControlBlock* block) {
    if (block != nullptr) block->inc_weak();
    px_ = px;
    release(std::exchange(block_, block));
  }

  static void release(ControlBlock* block) {
    if (block != nullptr && block->dec_weak() == 0) delete block;
  }

  T* px_ = nullptr;
  ControlBlock* block_ = nullptr;
};

}  // namespace oxutils

#endif  // TARN_OXUTILS_SMART_PTR_WEAK_PTR_H_
