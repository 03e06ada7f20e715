// singleton: one object of a class per process, created on first use.
#ifndef TARN_OXUTILS_SINGLETON_H_
#define TARN_OXUTILS_SINGLETON_H_

#include <atomic>

#include "oxutils/assert.h"
#include "oxutils/mutex.h"
#include "oxutils/relaxed.h"

namespace oxutils {

// Base of T, as in `class TarnLog : public singleton<TarnLog>`. instance() may be called on any
// thread, during static initialisation and at exit. Other objects of T may exist beside the
// instance.
//
// T is constructed under the creation lock: its constructor calls nothing that may want the lock of
// somebody who waits for the instance. A T that begins something declares `void published()`.
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
  // A T whose instance running threads use until the process is gone declares true: that instance
  // then stays whatever becomes of other objects of T.
  static constexpr bool kLivesForEver = false;

  singleton() = default;

  // Takes the instance down with it, unless that lives for ever or free_ is set.
  virtual ~singleton() {
    if (T::kLivesForEver || free_) return;
    const scoped_lock hold(lock_());
    // Cleared first: deleting the instance enters this destructor again.
    T* const doomed = instance_.exchange(nullptr);
    if (doomed != nullptr && static_cast<singleton*>(doomed) != this) delete doomed;
  }

  // Called on the instance alone, by the thread that has created it and with no lock held, while
  // other threads may be using it. Not virtual: T's own, if it declares one, is called.
  void published() {}

  // Makes the instance. T's own, if it declares one, is called; other objects are made without.
  static T* make() { return new T; }

  static inline relaxed<bool> free_{false};

 private:
  // Apart from the callers' code: it runs once.
  __attribute__((noinline, cold)) static T* create() {
    T* created = nullptr;
    {
      const scoped_lock hold(lock_());
      // A constructor that asks for the instance which it is making would do so for ever.
      OX_ASSERT("oxutils/singleton", __LINE__, hold.owns_lock());
      T* const existing = instance_.load(std::memory_order_relaxed);
      if (existing != nullptr) return existing;
      created = T::make();
      instance_.store(created, std::memory_order_release);
    }
    created->published();
    return created;
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
