// shared_ptr: counted ownership of an object.
#ifndef TARN_OXUTILS_SMART_PTR_SHARED_PTR_H_
#define TARN_OXUTILS_SMART_PTR_SHARED_PTR_H_

#include <stddef.h>

#include <type_traits>
#include <utility>

#include "oxutils/smart_ptr/control_block.h"
#include "oxutils/smart_ptr/enable_shared_from_this.h"
#include "oxutils/smart_ptr/weak_ptr.h"

namespace oxutils {

// Two words, the object and its control block, both null when empty. The last owner deletes the
// object. Counts are safe across threads; the object and a single shared_ptr are not synchronised.
template <typename T>
class shared_ptr {
 public:
  shared_ptr() = default;

  // Takes ownership of `px`; a null pointer makes an empty shared_ptr.
  explicit shared_ptr(T* px) : px_(px), block_(make_block(px)) {
    MaybeSetupWeakThis(px, *this);
  }

  // Refers to `object` without owning it, at no cost to copy: it has no control block and counts as
  // not set. For an object that outlives every copy.
  static shared_ptr lend(T& object) { return shared_ptr(&object, nullptr); }

  shared_ptr(const shared_ptr& other) : shared_ptr(other.px_, other.block_) { acquire(); }
  shared_ptr(shared_ptr&& other) noexcept
      : px_(std::exchange(other.px_, nullptr)), block_(std::exchange(other.block_, nullptr)) {}

  // From an owner of a derived class.
  template <typename U, typename = std::enable_if_t<std::is_convertible<U*, T*>::value>>
  shared_ptr(const shared_ptr<U>& other)  // NOLINT(google-explicit-constructor)
      : shared_ptr(other.px_, other.block_) {
    acquire();
  }
  template <typename U, typename = std::enable_if_t<std::is_convertible<U*, T*>::value>>
  shared_ptr(shared_ptr<U>&& other) noexcept  // NOLINT(google-explicit-constructor)
      : px_(std::exchange(other.px_, nullptr)), block_(std::exchange(other.block_, nullptr)) {}

  ~shared_ptr() { release(); }

  shared_ptr& operator=(const shared_ptr& other) {
    if (px_ != other.px_ || block_ != other.block_) shared_ptr(other).swap(*this);
    return *this;
  }
  shared_ptr& operator=(shared_ptr&& other) noexcept {
    shared_ptr(std::move(other)).swap(*this);
    return *this;
  }

  void reset() { shared_ptr().swap(*this); }
  void swap(shared_ptr& other) noexcept {
    std::swap(px_, other.px_);
    std::swap(block_, other.block_);
  }

  T* get() const { return px_; }
  T& operator*() const { return *px_; }
  T* operator->() const { return px_; }

  // Whether it owns an object. Its own count keeps ref_count() above 0, so the block tells.
  explicit operator bool() const { return block_ != nullptr; }
  // Strong owners, this one included; 0 when empty.
  uint32_t use_count() const { return block_ != nullptr ? block_->ref_count() : 0; }

 private:
  template <typename U>
  friend class shared_ptr;
  friend class weak_ptr<T>;

  // Adopts a count that the caller has taken.
  shared_ptr(T* px, ControlBlock* block) : px_(px), block_(block) {}

  // An object that cannot be counted goes, as its owner would have let it.
  static ControlBlock* make_block(T* px) {
    if (px == nullptr) return nullptr;
    try {
      return new ControlBlock;
    } catch (...) {
      delete px;
      throw;
    }
  }

  void acquire() {
    if (block_ != nullptr) block_->inc_ref();
  }

  void release() {
    if (block_ != nullptr) give_up();
  }
  void give_up() {
    if (block_->dec_ref() != 0) return;
    delete px_;
    if (block_->dec_weak() == 0) delete block_;
  }

  T* px_ = nullptr;
  ControlBlock* block_ = nullptr;
};

template <typename T, typename U>
bool operator==(const shared_ptr<T>& a, const shared_ptr<U>& b) {
  return a.get() == b.get();
}
template <typename T, typename U>
bool operator!=(const shared_ptr<T>& a, const shared_ptr<U>& b) {
  return a.get() != b.get();
}
template <typename T>
bool operator==(const shared_ptr<T>& a, std::nullptr_t) {
  return a.get() == nullptr;
}
template <typename T>
bool operator!=(const shared_ptr<T>& a, std::nullptr_t) {
  return a.get() != nullptr;
}

template <typename T, typename... A>
shared_ptr<T> make_shared(A&&... args) {
  return shared_ptr<T>(new T(std::forward<A>(args)...));
}

}  // namespace oxutils

#endif  // TARN_OXUTILS_SMART_PTR_SHARED_PTR_H_
