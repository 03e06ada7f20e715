#include "oxutils/thread.h"

#include <utility>

namespace oxutils {

thread::thread(Function f) : function_(std::move(f)) {
  created_ = pthread_create(&handle_, nullptr, &thread::entry, this) == 0;
}

thread::~thread() { join(); }

void thread::join() {
  if (!created_ || joined) return;
  started.wait();
  pthread_join(handle_, nullptr);
  joined = true;
}

void* thread::entry(void* self) {
  static_cast<thread*>(self)->run();
  return nullptr;
}

void thread::run() {
  const Function f = function_;
  started.post();
  f();
}

}  // namespace oxutils
