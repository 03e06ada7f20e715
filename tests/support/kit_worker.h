// The worker in a test: running, and stepped turn by turn.
#ifndef TARN_TESTS_SUPPORT_KIT_WORKER_H_
#define TARN_TESTS_SUPPORT_KIT_WORKER_H_

#include <gtest/gtest.h>

#include "src/send_window.h"
#include "src/tarn_thread.h"
#include "tarn/tarn.h"

namespace tarn_test {

inline void nothing() {}

// Returns after the worker has finished a turn that was still running its functions, timers
// included, when this was called, or that began later. With a stopped clock this makes the worker's
// timers a matter of steps.
inline void worker_turn() {
  TarnThread* worker = TarnThread::instance();
  worker->wait(oxutils::Function(nothing));  // runs before the timers of its turn
  worker->wait(oxutils::Function(nothing));  // so here those timers are done
}

// Member to declare before whatever needs the worker.
struct RunningWorker {
  RunningWorker() { tarn_init(); }
};

// Says whether the worker had been started before; declare it first. A worker that has seen other
// clocks may hold cancelled timers which are not due for ages and stand in front of new ones.
struct WorkerHistory {
  bool started = TarnThread::instance()->get_tid() != pthread_t{};
};

#define TARN_SKIP_UNLESS_WORKER_IS_FRESH(history) \
  if ((history).started) GTEST_SKIP() << "needs a process of its own, as under ctest"

// A send window that leaves no timer behind.
class TestWindow {
 public:
  TestWindow() { worker_turn(); }  // its timer is filed
  ~TestWindow() {
    window_.stop();
    worker_turn();
  }
  TestWindow(const TestWindow&) = delete;
  TestWindow& operator=(const TestWindow&) = delete;

  SendWindow* operator->() { return &window_; }
  SendWindow* get() { return &window_; }
  // One turn of the rotation, on the worker as always.
  void tick() { TarnThread::instance()->wait(oxutils::Function(&window_, &SendWindow::resend)); }

 private:
  RunningWorker worker_;
  SendWindow window_;
};

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_KIT_WORKER_H_
