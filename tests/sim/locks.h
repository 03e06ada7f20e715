// Locks: who holds which mutex.
#ifndef TARN_TESTS_SIM_LOCKS_H_
#define TARN_TESTS_SIM_LOCKS_H_

#include <pthread.h>

#include <cstdint>
#include <vector>

#include "tests/sim/scheduler.h"

namespace tarn_sim {

// The mutexes of a simulated run. All tasks share one system thread, so that the system cannot tell
// who holds a mutex: this table can. The mutex itself is locked as well, once it is clear that it
// is free, for ThreadSanitizer's sake.
class Locks {
 public:
  explicit Locks(Scheduler& scheduler) : scheduler_(scheduler) {}

  // What pthread_mutex_lock, _trylock and _unlock return. A lock that its holder asks for again,
  // and one that is released by somebody else, break a rule of the library and end the run.
  int lock(pthread_mutex_t* mutex);
  int try_lock(pthread_mutex_t* mutex);
  int unlock(pthread_mutex_t* mutex);
  // Releases the mutex and lets nobody else go on, so that the caller can begin to wait for what
  // the mutex guards.
  void release_to_wait(pthread_mutex_t* mutex);
  void destroyed(pthread_mutex_t* mutex) const;

  bool is_held(const void* mutex) const;
  // By the running task.
  unsigned int held_count() const;

 private:
  struct Held {
    pthread_mutex_t* mutex;
    TaskId holder;
  };
  const Held* find(const void* mutex) const;
  void take(pthread_mutex_t* mutex);

  Scheduler& scheduler_;
  std::vector<Held> held_;  // few at a time
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_LOCKS_H_
