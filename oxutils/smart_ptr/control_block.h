// The counts behind shared_ptr and weak_ptr.
#ifndef TARN_OXUTILS_SMART_PTR_CONTROL_BLOCK_H_
#define TARN_OXUTILS_SMART_PTR_CONTROL_BLOCK_H_

#include <stdint.h>

#include "oxutils/mutex.h"

namespace oxutils {

// One per owned object. Any thread; every change and every read of a count is serialised by the
// block's own mutex. Each operation returns the new value.
struct ControlBlock {
  uint32_t inc_ref() { return change(ref, 1); }
  uint32_t dec_ref() { return change(ref, kMinusOne); }
  uint32_t inc_weak() { return change(weak, 1); }
  uint32_t dec_weak() { return change(weak, kMinusOne); }
  uint32_t ref_count() { return change(ref, 0); }

  // Takes a strong count unless the object is gone already; false then.
  bool inc_ref_if_live() {
    const scoped_lock hold(mutex);
    if (ref == 0) return false;
    ++ref;
    return true;
  }

  uint32_t ref = 1;   // strong owners
  uint32_t weak = 1;  // weak owners, plus one for all strong owners together
  oxutils::mutex mutex;

 private:
  static constexpr uint32_t kMinusOne = UINT32_MAX;  // unsigned addition wraps

  uint32_t change(uint32_t& count, uint32_t by) {
    const scoped_lock hold(mutex);
    return count += by;
  }
};

}  // namespace oxutils

#endif  // TARN_OXUTILS_SMART_PTR_CONTROL_BLOCK_H_
