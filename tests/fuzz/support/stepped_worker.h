// SteppedWorker: the library's worker with the target's own thread in place of one of its own.
#ifndef TARN_TESTS_FUZZ_SUPPORT_STEPPED_WORKER_H_
#define TARN_TESTS_FUZZ_SUPPORT_STEPPED_WORKER_H_

namespace tarn_fuzz {

// Replaces tarn_init() for one run: the worker has timers, none of them left over from another run,
// but no thread, so that nothing happens except when and where the target says so. One at a time.
class SteppedWorker {
 public:
  SteppedWorker();
  // Lets the worker carry out what it has been given, then drops its timers.
  ~SteppedWorker();
  SteppedWorker(const SteppedWorker&) = delete;
  SteppedWorker& operator=(const SteppedWorker&) = delete;

  // What the worker does when it wakes up: first what has been handed over, then the due timers.
  // The calling thread is the worker meanwhile, so that callbacks find themselves on it. Not from
  // inside a callback.
  void turn();
};

}  // namespace tarn_fuzz

#endif  // TARN_TESTS_FUZZ_SUPPORT_STEPPED_WORKER_H_
