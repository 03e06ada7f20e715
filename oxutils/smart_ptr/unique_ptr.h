// unique_ptr: single ownership, one word.
#ifndef TARN_OXUTILS_SMART_PTR_UNIQUE_PTR_H_
#define TARN_OXUTILS_SMART_PTR_UNIQUE_PTR_H_

#include "oxutils/assert.h"

namespace oxutils {

// Deletes its object when it goes. Not synchronised.
template <typename T>
class unique_ptr {
 public:
  explicit unique_ptr(T* p = nullptr) : px(p) {}
  ~unique_ptr() { delete px; }
  unique_ptr(const unique_ptr&) = delete;
  unique_ptr& operator=(const unique_ptr&) = delete;

  // Deletes the object held, if any, and takes `p`, which must not be that same object.
  void reset(T* p = nullptr) {
    OX_ASSERT("oxutils/smart_ptr/unique_ptr", 100, (0L == p) || (px != p));  // NOLINT
    T* const old = px;
    px = p;
    delete old;
  }

  T* get() const { return px; }
  T& operator*() const {
    OX_ASSERT("oxutils/smart_ptr/unique_ptr", __LINE__, 0L != px);  // NOLINT
    return *px;
  }
  T* operator->() const {
    OX_ASSERT("oxutils/smart_ptr/unique_ptr", 131, 0L != px);  // NOLINT
    return px;
  }
  explicit operator bool() const { return px != nullptr; }

 private:
  T* px;
};

}  // namespace oxutils

#endif  // TARN_OXUTILS_SMART_PTR_UNIQUE_PTR_H_
