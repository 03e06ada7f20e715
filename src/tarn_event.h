// TarnEvent: what the worker sleeps on.
#ifndef TARN_SRC_TARN_EVENT_H_
#define TARN_SRC_TARN_EVENT_H_

#include <pthread.h>

// A flag to wait for, on the monotonic clock. Set and Reset on any thread, also under other locks;
// the event's own mutex guards the flag.
class TarnEvent {
 public:
  // Auto-reset, not signalled.
  TarnEvent();
  ~TarnEvent();
  TarnEvent(const TarnEvent&) = delete;
  TarnEvent& operator=(const TarnEvent&) = delete;

  // Sets the event up anew. A failure is printed and otherwise ignored. Requires: nobody waits.
  void Init(bool manual_reset, bool signalled);

  void Set();
  void Reset();

  // Waits until the event is signalled, for at most `ms` milliseconds, without limit for -1, not at
  // all for other values below 1. True when signalled; an auto-reset event is then clear again.
  bool Wait(int ms);

 private:
  void destroy();

  pthread_mutex_t mutex_;
  pthread_cond_t cond_;
  bool manual_reset_ = false;
  bool signalled_ = false;
  bool initialised_ = false;
};

#endif  // TARN_SRC_TARN_EVENT_H_
