// The linker puts these in the place of the system's locks (--wrap): inside a run a lock is a step.
#include <pthread.h>

#include "tests/interleave/explorer.h"

using tarn_test::Explorer;

extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __real_sched_yield();

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  Explorer* const explorer = Explorer::running();
  return explorer != nullptr ? explorer->lock(mutex) : __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  Explorer* const explorer = Explorer::running();
  return explorer != nullptr ? explorer->unlock(mutex) : __real_pthread_mutex_unlock(mutex);
}

int __wrap_sched_yield() {
  Explorer* const explorer = Explorer::running();
  if (explorer == nullptr) return __real_sched_yield();
  explorer->yield();
  return 0;
}

}  // extern "C"
