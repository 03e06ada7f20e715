// The library's lock and its guard.
#ifndef TARN_OXUTILS_MUTEX_H_
#define TARN_OXUTILS_MUTEX_H_

#include <pthread.h>

#include "oxutils/thread_annotations.h"

namespace oxutils {

// A POSIX mutex of the error-checking type: a second lock by its owner fails instead of
// deadlocking. Any thread.
class OX_CAPABILITY("mutex") mutex {
 public:
  mutex();
  ~mutex();
  mutex(const mutex&) = delete;
  mutex& operator=(const mutex&) = delete;

  // False when the calling thread holds the mutex already; it then still holds it once.
  bool lock() OX_ACQUIRE() { return pthread_mutex_lock(&handle_) == 0; }
  // False when the calling thread does not hold the mutex.
  bool unlock() OX_RELEASE() { return pthread_mutex_unlock(&handle_) == 0; }
  // False when any thread, the calling one included, holds the mutex.
  bool try_lock() OX_TRY_ACQUIRE(true) { return pthread_mutex_trylock(&handle_) == 0; }

 private:
  pthread_mutex_t handle_;
};

// Holds a mutex for a block. It remembers whether its own lock succeeded, so that an inner guard of
// the same thread never releases the hold of an outer one.
class OX_SCOPED_CAPABILITY scoped_lock {
 public:
  explicit scoped_lock(mutex& m) OX_ACQUIRE(m) : mutex_(m), locked_(m.lock()) {}
  ~scoped_lock() OX_RELEASE() {
    if (locked_) mutex_.unlock();
  }
  // False when an outer guard of this thread holds the mutex.
  bool owns_lock() const { return locked_; }

  scoped_lock(const scoped_lock&) = delete;
  scoped_lock& operator=(const scoped_lock&) = delete;

 private:
  mutex& mutex_;
  const bool locked_;
};

}  // namespace oxutils

#endif  // TARN_OXUTILS_MUTEX_H_
