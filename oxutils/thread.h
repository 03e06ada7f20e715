// thread: an operating system thread that runs one Function.
#ifndef TARN_OXUTILS_THREAD_H_
#define TARN_OXUTILS_THREAD_H_

#include <pthread.h>

#include "oxutils/callback.h"
#include "oxutils/sem.h"

namespace oxutils {

// Starts at construction; the destructor waits until the body has begun, then joins. Created and
// destroyed by its owner, never on the thread itself. The thread blocks all signals: the process's
// are handled on the threads of those who asked for them.
class thread {
 public:
  explicit thread(Function f);
  ~thread();
  thread(const thread&) = delete;
  thread& operator=(const thread&) = delete;

  // Waits until the body has ended. Again: nothing. Not on the thread itself.
  void join();

  // False when the system refused to create the thread; the function then never runs.
  bool created() const { return created_; }

 private:
  // Whatever would leave the function ends the process, be it an exception or what unwinds a thread
  // that is cancelled inside a callback: all who hand work to the thread would wait for ever.
  static void* entry(void* self) noexcept;
  void run();

  bool created_ = false;
  bool joined = false;
  pthread_t handle_{};
  sem started;  // posted once the body has begun
  Function function_;
};

}  // namespace oxutils

#endif  // TARN_OXUTILS_THREAD_H_
