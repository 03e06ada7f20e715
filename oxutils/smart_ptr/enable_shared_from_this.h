// enable_shared_from_this: an object that can hand out references to itself.
#ifndef TARN_OXUTILS_SMART_PTR_ENABLE_SHARED_FROM_THIS_H_
#define TARN_OXUTILS_SMART_PTR_ENABLE_SHARED_FROM_THIS_H_

#include "oxutils/assert.h"
#include "oxutils/smart_ptr/weak_ptr.h"

namespace oxutils {

// Base of T. The first shared_ptr that wraps the object fills weak_this_; until then, and when the
// object is not owned by a shared_ptr at all, weak_this_.lock() gives nothing.
template <typename T>
class enable_shared_from_this {
 public:
  weak_ptr<T> weak_this_;

 protected:
  enable_shared_from_this() = default;
  // A copy is another object with owners of its own.
  enable_shared_from_this(const enable_shared_from_this&) {}
  enable_shared_from_this& operator=(const enable_shared_from_this&) { return *this; }
  ~enable_shared_from_this() = default;
};

// Makes `owner` known to the object that it wraps. A raw object may be handed to a shared_ptr once.
template <typename T, typename U>
void MaybeSetupWeakThis(enable_shared_from_this<T>* ptr, const shared_ptr<U>& owner) {
  if (ptr == nullptr) return;
  OX_ASSERT("oxutils/smart_ptr/enable_shared_from_this", 56, ptr->weak_this_.expired());
  ptr->weak_this_ = owner;
}

// Objects of any other class.
template <typename U>
void MaybeSetupWeakThis(const volatile void*, const shared_ptr<U>&) {}

}  // namespace oxutils

#endif  // TARN_OXUTILS_SMART_PTR_ENABLE_SHARED_FROM_THIS_H_
