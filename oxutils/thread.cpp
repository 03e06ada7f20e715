#include "oxutils/thread.h"

#include <signal.h>

#include <utility>

namespace oxutils {

// The new thread has its creator's signal mask.
thread::thread(Function f) : function_(std::move(f)) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  created_ = pthread_create(&handle_, nullptr, &thread::entry, this) == 0;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

thread::~thread() { join(); }

void thread::join() {
  if (!created_ || joined) return;
  started.wait();
  pthread_join(handle_, nullptr);
  joined = true;
}

void* thread::entry(void* self) noexcept {
  static_cast<thread*>(self)->run();
  return nullptr;
}

void thread::run() {
  const Function f = function_;
  started.post();
  f();
}

}  // namespace oxutils
