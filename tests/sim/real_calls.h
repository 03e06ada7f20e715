// The system's own calls behind those that the simulator stands in for (the linker's --wrap).
#ifndef TARN_TESTS_SIM_REAL_CALLS_H_
#define TARN_TESTS_SIM_REAL_CALLS_H_

#include <pthread.h>
#include <semaphore.h>
#include <time.h>

extern "C" {
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __real_pthread_mutex_destroy(pthread_mutex_t* mutex);
int __real_sem_post(sem_t* semaphore);
}

#endif  // TARN_TESTS_SIM_REAL_CALLS_H_
