// Counting semaphore.
#ifndef TARN_OXUTILS_SEM_H_
#define TARN_OXUTILS_SEM_H_

#include <errno.h>
#include <semaphore.h>

namespace oxutils {

// An unnamed POSIX semaphore of this process. Any thread; destroy it only when nobody waits.
class sem {
 public:
  explicit sem(unsigned int value = 0) { sem_init(&handle_, 0, value); }
  ~sem() { sem_destroy(&handle_); }
  sem(const sem&) = delete;
  sem& operator=(const sem&) = delete;

  void post() { sem_post(&handle_); }

  // Blocks until a post is there to take; signals do not end the wait.
  void wait() {
    while (sem_wait(&handle_) != 0 && errno == EINTR) {
    }
  }

 private:
  sem_t handle_;
};

}  // namespace oxutils

#endif  // TARN_OXUTILS_SEM_H_
