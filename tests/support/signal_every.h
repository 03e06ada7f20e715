// Signals that interrupt whatever the program waits for.
#ifndef TARN_TESTS_SUPPORT_SIGNAL_EVERY_H_
#define TARN_TESTS_SUPPORT_SIGNAL_EVERY_H_

#include <chrono>
#include <csignal>

namespace tarn_test {

// From construction to destruction SIGALRM comes again and again, and does nothing but interrupt.
class SignalEvery {
 public:
  explicit SignalEvery(std::chrono::microseconds period);
  ~SignalEvery();
  SignalEvery(const SignalEvery&) = delete;
  SignalEvery& operator=(const SignalEvery&) = delete;

 private:
  struct sigaction before_ = {};
};

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_SIGNAL_EVERY_H_
