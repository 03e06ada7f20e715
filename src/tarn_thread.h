// TarnThread: the worker, on which all timed work of all sessions runs.
#ifndef TARN_SRC_TARN_THREAD_H_
#define TARN_SRC_TARN_THREAD_H_

#include <pthread.h>

#include "oxutils/callback.h"
#include "oxutils/mutex.h"
#include "oxutils/relaxed.h"
#include "oxutils/sem.h"
#include "oxutils/singleton.h"
#include "oxutils/smart_ptr/unique_ptr.h"
#include "oxutils/thread.h"
#include "src/call_queue.h"
#include "src/tarn_event.h"
#include "src/tarn_thread_base.h"
#include "src/tarn_timer.h"
#include "src/worker_turn.h"

// One per process. In turns, it sleeps until a timer is due or a function is handed over, then runs
// the functions in order of arrival, then the due timers. Any thread may call any operation; timer
// operations, get_timeout() and update() require start(). The process's instance lives for ever.
class TarnThread : public TarnThreadBase, public oxutils::singleton<TarnThread> {
 public:
  static constexpr bool kLivesForEver = true;

  TarnThread() = default;
  // Ends and joins the worker. Not on the worker itself.
  ~TarnThread() override;

  void start() override;
  // Wakes the worker, no more: nothing could start it again, so nothing but the destructor ends it.
  void stop() override;
  pthread_t get_tid() override;
  void run(oxutils::Function f) override;
  // No time limit; before start() it waits for ever. Inline on the worker, and inside update(),
  // which keeps the worker from taking any call.
  void wait(oxutils::Function f) override;
  int run_every(int interval, oxutils::Function f) override;
  int run_after(int delay, oxutils::Function f) override;
  int run_at(int tick, oxutils::Function f) override;
  void cancel_timer(int id) override;
  int get_timeout() override;
  // Runs due timers on the calling thread; returns at once while anyone runs them already.
  void update() override;

  bool is_in_thread();

  // The worker's body.
  void thread_func();
  // Worker only. Runs what has been handed over so far; later arrivals belong to the next turn.
  void do_pending_func();

 private:
  bool try_start() OX_EXCLUDES(start_lock_);
  // Aborts, after a line on standard error, without start().
  TarnTimerQueue& timers();
  int file_timer(oxutils::Function f, int delay, int interval);

  oxutils::mutex start_lock_;
  oxutils::unique_ptr<oxutils::thread> thread_ OX_GUARDED_BY(start_lock_);
  oxutils::relaxed<bool> ending_{false};
  CallQueue pending_;
  oxutils::unique_ptr<TarnTimerQueue> timers_;
  TarnEvent event_;
  oxutils::relaxed<pthread_t> tid_{};      // written once, by the worker
  oxutils::relaxed<pthread_t> updater_{};  // who is in update(), with the turn
  WorkerTurn<TarnEvent> turn_{event_};
};

// Calls `f`, then posts `done`.
void tarn_wait_func(oxutils::sem* done, oxutils::Function f);

#endif  // TARN_SRC_TARN_THREAD_H_
