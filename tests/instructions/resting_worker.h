// The library's worker, kept from its work.
#ifndef TARN_TESTS_INSTRUCTIONS_RESTING_WORKER_H_
#define TARN_TESTS_INSTRUCTIONS_RESTING_WORKER_H_

#include <condition_variable>
#include <functional>
#include <mutex>

#include "tarn/tarn.h"
#include "tests/support/virtual_clock.h"

namespace instructions {

// While it lives the worker stands in a callback: no timer runs, and nothing is filed or freed at a
// moment that depends on the machine's load. Requires: tarn_init().
class RestingWorker {
 public:
  // Returns when the worker rests. Moves the clock.
  explicit RestingWorker(tarn_test::VirtualClock& clock);
  ~RestingWorker();
  RestingWorker(const RestingWorker&) = delete;
  RestingWorker& operator=(const RestingWorker&) = delete;

  // Runs `job` on the worker and waits for its end.
  void run(std::function<void()> job);

 private:
  static int rest_callback(TarnError code, void* self);
  void rest();

  void* session_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool rests_ = false;
  bool released_ = false;
  std::function<void()> job_;
};

}  // namespace instructions

#endif  // TARN_TESTS_INSTRUCTIONS_RESTING_WORKER_H_
