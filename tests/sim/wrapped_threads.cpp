// Stand-ins for the system's clocks, threads, locks and semaphores. The linker puts them in the
// library's way (--wrap), so that everything that waits, waits in virtual time.
#include <errno.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>

#include <string_view>

#include "tests/sim/boundary.h"
#include "tests/sim/real_calls.h"
#include "tests/sim/sanitizers.h"
#include "tests/sim/world.h"

using tarn_sim::InsideLibrary;
using tarn_sim::kNever;
using tarn_sim::kNsPerSecond;
using tarn_sim::kNsPerUs;
using tarn_sim::OutsideLibrary;
using tarn_sim::Scheduler;
using tarn_sim::TaskId;
using tarn_sim::World;

namespace {

// The monotonic clock does not start at 0 either.
constexpr uint64_t kMonotonicStart = 1000 * kNsPerSecond;

constexpr uint64_t kShortestWait = 10 * kNsPerUs;

constexpr std::string_view kWorkerName = "tarn_thread";

pthread_t thread_of(TaskId task) { return static_cast<pthread_t>(task + 1); }
TaskId task_of(pthread_t thread) { return static_cast<TaskId>(thread - 1); }

uint64_t deadline_of(const timespec& at) {
  const uint64_t ns =
      static_cast<uint64_t>(at.tv_sec) * kNsPerSecond + static_cast<uint64_t>(at.tv_nsec);
  return ns > kMonotonicStart ? ns - kMonotonicStart : 0;
}

int wait_for(pthread_cond_t* cond, pthread_mutex_t* mutex, uint64_t deadline) {
  const OutsideLibrary outside;
  World& world = World::get();
  const bool spurious = world.scheduler().is_spurious();
  // Whoever waits for nothing, as the worker does until the tick moves on, uses up time.
  if (deadline <= world.scheduler().now()) world.scheduler().spend(kShortestWait);
  bool woken = true;
  if (spurious) {
    world.locks().unlock(mutex);
  } else {
    world.locks().release_to_wait(mutex);
    woken = world.scheduler().block(cond, deadline);
  }
  world.locks().lock(mutex);
  return woken ? 0 : ETIMEDOUT;
}

}  // namespace

extern "C" {

// All tasks share one system thread, but errno is each one's own.
int* __wrap___errno_location(void) {
  Scheduler* const scheduler = Scheduler::running();
  return scheduler != nullptr ? scheduler->error_number() : __real___errno_location();
}

int __wrap_gettimeofday(struct timeval* tv, void*) {
  const uint64_t us = World::get().wall_us();
  tv->tv_sec = static_cast<time_t>(us / 1'000'000);
  tv->tv_usec = static_cast<suseconds_t>(us % 1'000'000);
  return 0;
}

int __wrap_clock_gettime(clockid_t, struct timespec* at) {
  const uint64_t ns = World::get().scheduler().now() + kMonotonicStart;
  at->tv_sec = static_cast<time_t>(ns / kNsPerSecond);
  at->tv_nsec = static_cast<long>(ns % kNsPerSecond);
  return 0;
}

int __wrap_usleep(useconds_t us) {
  const OutsideLibrary outside;
  World::get().scheduler().sleep(us * kNsPerUs);
  return 0;
}

int __wrap_sched_yield(void) {
  const OutsideLibrary outside;
  World::get().scheduler().yield();
  return 0;
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  const OutsideLibrary outside;
  return World::get().locks().lock(mutex);
}

int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex) {
  const OutsideLibrary outside;
  return World::get().locks().try_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  const OutsideLibrary outside;
  return World::get().locks().unlock(mutex);
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
  const OutsideLibrary outside;
  World::get().locks().destroyed(mutex);
  return __real_pthread_mutex_destroy(mutex);
}

int __wrap_pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex) {
  return wait_for(cond, mutex, kNever);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                  const struct timespec* at) {
  return wait_for(cond, mutex, deadline_of(*at));
}

int __wrap_pthread_cond_broadcast(pthread_cond_t* cond) {
  const OutsideLibrary outside;
  World::get().scheduler().wake(cond);
  World::get().scheduler().point();
  return 0;
}

int __wrap_sem_wait(sem_t* semaphore) {
  const OutsideLibrary outside;
  Scheduler& scheduler = World::get().scheduler();
  scheduler.point();
  if (scheduler.is_spurious()) {
    errno = EINTR;
    return -1;
  }
  while (sem_trywait(semaphore) != 0) scheduler.block(semaphore, kNever);
  return 0;
}

int __wrap_sem_post(sem_t* semaphore) {
  const OutsideLibrary outside;
  // Woken first: whoever takes the post may free the semaphore.
  World::get().scheduler().wake(semaphore);
  const int result = __real_sem_post(semaphore);
  World::get().scheduler().point();
  return result;
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t*, void* (*body)(void*),
                          void* argument) {
  const OutsideLibrary outside;
  Scheduler& scheduler = World::get().scheduler();
  tarn_sim::hand_over(argument);
  *thread = thread_of(scheduler.spawn("thread", [body, argument] {
    tarn_sim::take_over(argument);
    const InsideLibrary inside;
    body(argument);
  }));
  scheduler.point();
  return 0;
}

int __wrap_pthread_join(pthread_t thread, void**) {
  const OutsideLibrary outside;
  World::get().scheduler().join(task_of(thread));
  return 0;
}

pthread_t __wrap_pthread_self(void) { return thread_of(World::get().scheduler().self()); }

int __wrap_pthread_setname_np(pthread_t thread, const char* name) {
  const OutsideLibrary outside;
  World& world = World::get();
  world.scheduler().set_name(task_of(thread), name);
  if (std::string_view(name) == kWorkerName) world.set_runs_timers(task_of(thread), true);
  return 0;
}

}  // extern "C"
