// TarnIoThread: the thread that drives every socket of the library.
#ifndef TARN_TARN_IO_TARN_IO_THREAD_H_
#define TARN_TARN_IO_TARN_IO_THREAD_H_

#include <pthread.h>

#include "oxutils/callback.h"
#include "oxutils/mutex.h"
#include "oxutils/relaxed.h"
#include "oxutils/sem.h"
#include "oxutils/singleton.h"
#include "oxutils/smart_ptr/unique_ptr.h"
#include "oxutils/thread.h"
#include "src/call_queue.h"
#include "src/tarn_thread_base.h"
#include "tarn_io/tarn_wake_up.h"

// One per process, running as soon as it exists, that is from the first call that needs it on. It
// polls, then runs what was handed over, in turns. It has no timers. Any thread may call any
// operation. The process's instance lives for ever.
class TarnIoThread : public TarnThreadBase, public oxutils::singleton<TarnIoThread> {
 public:
  static constexpr bool kLivesForEver = true;

  // Starts the thread; the process's instance does so once it can be had.
  TarnIoThread() : TarnIoThread(kNotStarted) { start(); }
  // Ends and joins the thread. Not on the thread itself.
  ~TarnIoThread() override;

  // Logs what goes wrong with no lock held.
  void start() override;
  // The loop ends after its current pass. Does not wait for that.
  void stop() override;
  pthread_t get_tid() override;
  // Without waiting; inline on the thread itself (until that has begun, on the one that constructed
  // this), and on the caller once the loop has ended.
  void run(oxutils::Function f) override;
  void wait(oxutils::Function f) override;
  // There is no timer queue: these return 0 and drop the function.
  int run_every(int interval, oxutils::Function f) override;
  int run_after(int delay, oxutils::Function f) override;
  int run_at(int tick, oxutils::Function f) override;
  void cancel_timer(int id) override;
  int get_timeout() override;
  void update() override;

  // The thread's body.
  void func();
  // I/O thread only. Runs what has been handed over so far; later arrivals wait for the next pass.
  void do_pendings();

 private:
  friend class oxutils::singleton<TarnIoThread>;
  enum NotStarted { kNotStarted };
  explicit TarnIoThread(NotStarted);
  static TarnIoThread* make() { return new TarnIoThread(kNotStarted); }
  void published() { start(); }

  // Begins a start, unless the thread is there. Null, or what is wrong with the wake-up, to be
  // logged before the thread is created.
  const char* prepare() OX_EXCLUDES(thread_lock_);
  // False when the system has refused it; the queue is closed then.
  bool create_thread() OX_EXCLUDES(thread_lock_);
  void loop();
  // Nothing is watched: whether the wake-up, which was missing, is there now.
  bool regain_wake_up();
  // Milliseconds for the next poll; tries to build the wake-up if there is none.
  unsigned int next_timeout();
  void wake();

  const oxutils::Function waker_;
  oxutils::mutex thread_lock_;
  oxutils::unique_ptr<oxutils::thread> thread_ OX_GUARDED_BY(thread_lock_);
  bool prepared_ OX_GUARDED_BY(thread_lock_) = false;  // the thread is still to be created
  TarnWakeUp wake_up_;
  unsigned int passes_without_wake_up_ = 0;      // I/O thread only
  oxutils::relaxed<bool> has_run_calls_{false};  // the last time that somebody looked for them
  // Closed when the loop has ended: callers then run their functions themselves.
  CallQueue pendings_;
  oxutils::relaxed<int> running_{0};
  // While false, whoever hands something over goes through start(): the thread has been refused, or
  // somebody else's start() is under way, perhaps held up in a log callback.
  oxutils::relaxed<bool> has_thread_{false};
  oxutils::relaxed<pthread_t> tid_;  // of the constructing thread until the thread has started
};

// Calls `f`, then posts `done`.
void tarn_io_wait_func(oxutils::sem* done, oxutils::Function f);

#endif  // TARN_TARN_IO_TARN_IO_THREAD_H_
