#include "tests/sim/locks.h"

#include <errno.h>

#include <algorithm>

#include "tests/sim/failure.h"
#include "tests/sim/real_calls.h"

namespace tarn_sim {

const Locks::Held* Locks::find(const void* mutex) const {
  for (const Held& each : held_) {
    if (each.mutex == mutex) return &each;
  }
  return nullptr;
}

void Locks::take(pthread_mutex_t* mutex) {
  // It is free, so only a mutex that does not exist any more, or not yet, refuses.
  if (__real_pthread_mutex_lock(mutex) != 0) fail("a lock is asked for that does not exist");
  held_.push_back({mutex, scheduler_.self()});
}

int Locks::lock(pthread_mutex_t* mutex) {
  scheduler_.point();
  while (const Held* const held = find(mutex)) {
    if (held->holder == scheduler_.self()) fail("a lock is refused: its holder asks for it again");
    scheduler_.block(mutex, kNever);
  }
  take(mutex);
  return 0;
}

int Locks::try_lock(pthread_mutex_t* mutex) {
  scheduler_.point();
  if (find(mutex) != nullptr) return EBUSY;
  take(mutex);
  return 0;
}

int Locks::unlock(pthread_mutex_t* mutex) {
  release_to_wait(mutex);
  scheduler_.point();
  return 0;
}

void Locks::release_to_wait(pthread_mutex_t* mutex) {
  const Held* const held = find(mutex);
  if (held == nullptr || held->holder != scheduler_.self()) {
    fail("a lock is released by somebody who does not hold it");
  }
  held_.erase(held_.begin() + (held - held_.data()));
  __real_pthread_mutex_unlock(mutex);
  scheduler_.wake(mutex);
}

void Locks::destroyed(pthread_mutex_t* mutex) const {
  if (is_held(mutex)) fail("a lock is destroyed while it is held");
}

bool Locks::is_held(const void* mutex) const { return find(mutex) != nullptr; }

unsigned int Locks::held_count() const {
  const TaskId self = scheduler_.self();
  return static_cast<unsigned int>(std::count_if(
      held_.begin(), held_.end(), [self](const Held& each) { return each.holder == self; }));
}

}  // namespace tarn_sim
