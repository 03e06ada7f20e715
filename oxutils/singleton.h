// singleton: one object of a class per process, created on first use.
#ifndef TARN_OXUTILS_SINGLETON_H_
#define TARN_OXUTILS_SINGLETON_H_

#include <atomic>

#include "oxutils/mutex.h"
#include "oxutils/relaxed.h"

namespace oxutils {

// Base of T, as in `class TarnLog : public singleton<TarnLog>`. instance() may be called on any
// thread, during static initialisation and at exit. Other objects of T may exist beside the
// instance.
template <typename T>
class singleton {
 public:
  // The process's T, created by whoever asks first.
  static T* instance() {
    T* existing = instance_.load(std::memory_order_acquire);
    return existing != nullptr ? existing : create();
  }

  // The instance if it has been created, or null.
  static T* existing() { return instance_.load(std::memory_order_acquire); }

  singleton(const singleton&) = delete;
  singleton& operator=(const singleton&) = delete;

 protected:
  singleton() = default;

  // Takes the instance down with it, unless free_ is set.
  virtual ~singleton() {
    if (free_) return;
    const scoped_lock hold(lock_());
    // Cleared first: deleting the instance enters this destructor again.
    T* const doomed = instance_.exchange(nullptr);
    if (doomed != nullptr && static_cast<singleton*>(doomed) != this) delete doomed;
  }

  // Set by the classes whose instance running threads use until the process is gone: it then stays
  // whatever becomes of other objects of T.
  static inline relaxed<bool> free_{false};

 private:
  static T* create() {
    const scoped_lock hold(lock_());
    T* existing = instance_.load(std::memory_order_relaxed);
    if (existing == nullptr) {
      existing = new T;
      instance_.store(existing, std::memory_order_release);
    }
    return existing;
  }

  // Built on first use and never destroyed, so that it serves early and late callers alike.
  static mutex& lock_() {
    static mutex& lock = *new mutex;
    return lock;
  }

  static inline std::atomic<T*> instance_{nullptr};
};

}  // namespace oxutils

#endif  // TARN_OXUTILS_SINGLETON_H_
