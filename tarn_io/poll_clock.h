// PollClock: the poller's milliseconds.
#ifndef TARN_TARN_IO_POLL_CLOCK_H_
#define TARN_TARN_IO_POLL_CLOCK_H_

#include <stdint.h>
#include <time.h>

// Monotonic time, for pauses and looks. Any thread.
class PollClock {
 public:
  static int64_t now() { return read(CLOCK_MONOTONIC); }

  // Behind by up to a tick of the kernel's, some milliseconds, but read in a fraction of the time.
  static int64_t coarse_now() {
#ifdef CLOCK_MONOTONIC_COARSE
    return read(CLOCK_MONOTONIC_COARSE);
#else
    return now();
#endif
  }

 private:
  static int64_t read(clockid_t clock) {
    timespec time;
    clock_gettime(clock, &time);
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
  }
};

#endif  // TARN_TARN_IO_POLL_CLOCK_H_
