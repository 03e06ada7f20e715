#include "src/tarn_event.h"

#include <stdio.h>
#include <time.h>

namespace {

constexpr long kNsPerSecond = 1'000'000'000;
constexpr long kNsPerMs = 1'000'000;
constexpr int kForever = -1;

timespec deadline_after(int ms) {
  timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += ms / 1000;
  deadline.tv_nsec += ms % 1000 * kNsPerMs;
  if (deadline.tv_nsec >= kNsPerSecond) {
    deadline.tv_nsec -= kNsPerSecond;
    ++deadline.tv_sec;
  }
  return deadline;
}

}  // namespace

TarnEvent::TarnEvent() { Init(false, false); }

TarnEvent::~TarnEvent() { destroy(); }

void TarnEvent::destroy() {
  pthread_mutex_destroy(&mutex_);
  pthread_cond_destroy(&cond_);
}

// Printed, not logged: logging may not be possible yet.
void TarnEvent::Init(bool manual_reset, bool signalled) {
  if (initialised_) destroy();
  initialised_ = true;
  manual_reset_ = manual_reset;
  signalled_ = signalled;
  if (pthread_mutex_init(&mutex_, nullptr) != 0) puts("TarnEvent: pthread_mutex_init error!");
  pthread_condattr_t attributes;
  if (pthread_condattr_init(&attributes) != 0) puts("TarnEvent: pthread_condattr_init error!");
  if (pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC) != 0) {
    puts("TarnEvent: pthread_condattr_setclock error!");
  }
  if (pthread_cond_init(&cond_, &attributes) != 0) puts("TarnEvent: pthread_cond_init error!");
  pthread_condattr_destroy(&attributes);
}

void TarnEvent::Set() {
  pthread_mutex_lock(&mutex_);
  signalled_ = true;
  pthread_cond_broadcast(&cond_);
  pthread_mutex_unlock(&mutex_);
}

void TarnEvent::Reset() {
  pthread_mutex_lock(&mutex_);
  signalled_ = false;
  pthread_mutex_unlock(&mutex_);
}

bool TarnEvent::Wait(int ms) {
  const timespec deadline = deadline_after(ms > 0 ? ms : 0);
  pthread_mutex_lock(&mutex_);
  for (int result = 0; !signalled_ && result == 0;) {
    result = ms == kForever ? pthread_cond_wait(&cond_, &mutex_)
                            : pthread_cond_timedwait(&cond_, &mutex_, &deadline);
  }
  const bool was_signalled = signalled_;
  if (!manual_reset_) signalled_ = false;
  pthread_mutex_unlock(&mutex_);
  return was_signalled;
}
