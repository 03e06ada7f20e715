#include "tests/support/signal_every.h"

#include <sys/time.h>

namespace tarn_test {

SignalEvery::SignalEvery(std::chrono::microseconds period) {
  struct sigaction nothing = {};
  nothing.sa_handler = [](int) {};
  sigaction(SIGALRM, &nothing, &before_);
  const timeval us = {0, static_cast<suseconds_t>(period.count())};
  const itimerval often = {us, us};
  setitimer(ITIMER_REAL, &often, nullptr);
}

SignalEvery::~SignalEvery() {
  const itimerval never = {};
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before_, nullptr);
}

}  // namespace tarn_test
