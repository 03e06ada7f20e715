// thread: an operating system thread that runs one Function.
#ifndef TARN_OXUTILS_THREAD_H_
#define TARN_OXUTILS_THREAD_H_

#include <pthread.h>

#include "oxutils/callback.h"
#include "oxutils/sem.h"

namespace oxutils {

// Starts at construction; the destructor waits until the body has begun, then joins. Created and
// destroyed by its owner, never on the thread itself.
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
  static void* entry(void* self);
  void run();

  bool created_ = false;
  bool joined = false;
  pthread_t handle_{};
  sem started;  // posted once the body has begun
  Function function_;
};

}  // namespace oxutils

#endif  // TARN_OXUTILS_THREAD_H_
