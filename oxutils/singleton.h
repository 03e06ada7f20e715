// singleton: one object of a class per process, created on first use.
#ifndef TARN_OXUTILS_SINGLETON_H_
#define TARN_OXUTILS_SINGLETON_H_

#include <atomic>
#include <new>

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
    return __builtin_expect(existing != nullptr, 1) ? existing : create();
  }

  // The instance if it has been created, or null. Waits for one that is being created.
  static T* existing() {
    T* const instance = instance_.load(std::memory_order_acquire);
    if (instance != nullptr) return instance;
    const scoped_lock hold(lock_());
    return instance_.load(std::memory_order_relaxed);
  }

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
  // Apart from the callers' code: it runs once.
  __attribute__((noinline, cold)) static T* create() {
    const scoped_lock hold(lock_());
    T* const existing = instance_.load(std::memory_order_relaxed);
    if (existing != nullptr) return existing;
    // T's constructor has called out, and whom it called has come back: there is one T still.
    if (!hold.owns_lock()) return under_construction_;
    void* const memory = ::operator new(sizeof(T));
    under_construction_ = static_cast<T*>(memory);
    T* const created = new (memory) T;
    instance_.store(created, std::memory_order_release);
    return created;
  }

  // Built on first use and never destroyed, so that it serves early and late callers alike.
  static mutex& lock_() {
    static mutex& lock = *new mutex;
    return lock;
  }

  static inline std::atomic<T*> instance_{nullptr};
  static inline T* under_construction_ = nullptr;  // guarded by lock_()
};

}  // namespace oxutils

#endif  // TARN_OXUTILS_SINGLETON_H_
