// HandleRegistry: which handles are live objects.
#ifndef TARN_SRC_HANDLE_REGISTRY_H_
#define TARN_SRC_HANDLE_REGISTRY_H_

#include <unordered_map>
#include <utility>

#include "oxutils/mutex.h"
#include "oxutils/smart_ptr/shared_ptr.h"

// Maps the opaque values that the application holds to the objects behind them, of which it keeps a
// reference each. Any thread; lock_ guards the map and is held for the map alone.
template <typename T>
class HandleRegistry {
 public:
  using Pointer = oxutils::shared_ptr<T>;

  // False when the handle is taken.
  bool add(void* handle, const Pointer& object) OX_EXCLUDES(lock_) {
    const oxutils::scoped_lock hold(lock_);
    return objects_.emplace(handle, object).second;
  }

  // A counted reference, or nothing for a handle that is not registered.
  Pointer get(void* handle) const OX_EXCLUDES(lock_) {
    const oxutils::scoped_lock hold(lock_);
    const auto found = objects_.find(handle);
    return found != objects_.end() ? found->second : Pointer();
  }

  // The registry's own reference, or nothing.
  Pointer remove(void* handle) OX_EXCLUDES(lock_) {
    const oxutils::scoped_lock hold(lock_);
    const auto found = objects_.find(handle);
    if (found == objects_.end()) return Pointer();
    Pointer object = std::move(found->second);
    objects_.erase(found);
    return object;
  }

 private:
  mutable oxutils::mutex lock_;
  std::unordered_map<void*, Pointer> objects_ OX_GUARDED_BY(lock_);
};

#endif  // TARN_SRC_HANDLE_REGISTRY_H_
