// TarnThreadBase: what the worker and the I/O thread have in common.
#ifndef TARN_SRC_TARN_THREAD_BASE_H_
#define TARN_SRC_TARN_THREAD_BASE_H_

#include <pthread.h>

#include "oxutils/callback.h"

// A thread that takes functions to run. Every operation may be called from any thread. The order of
// the virtual operations is part of the design.
class TarnThreadBase {
 public:
  virtual ~TarnThreadBase() = default;

  // Creates and starts the thread; nothing if it has been started.
  virtual void start() = 0;
  // Asks the thread to stop.
  virtual void stop() = 0;
  // The thread's id; until it has run, 0 or what the derived class says.
  virtual pthread_t get_tid() = 0;
  // Runs `f` on the thread: queued, or inline when called on the thread itself.
  virtual void run(oxutils::Function f) = 0;
  // The same, and blocks until `f` has run.
  virtual void wait(oxutils::Function f) = 0;
  // Periodic timer, in milliseconds; returns its id.
  virtual int run_every(int interval, oxutils::Function f) = 0;
  // One-shot timer after `delay` milliseconds; returns its id.
  virtual int run_after(int delay, oxutils::Function f) = 0;
  // One-shot timer at a tick; returns its id.
  virtual int run_at(int tick, oxutils::Function f) = 0;
  virtual void cancel_timer(int id) = 0;
  // Milliseconds until the next timer is due.
  virtual int get_timeout() = 0;
  // Runs due timers now, on the calling thread.
  virtual void update() = 0;
};

#endif  // TARN_SRC_TARN_THREAD_BASE_H_
