// A call that runs any code, for whoever wants an oxutils::Function.
#ifndef TARN_TESTS_SUPPORT_NET_CALL_H_
#define TARN_TESTS_SUPPORT_NET_CALL_H_

#include <atomic>
#include <functional>
#include <utility>

#include "oxutils/callback.h"

namespace tarn_test {

// Outlives every run of the functions it gives out.
class Call {
 public:
  Call() : Call([] {}) {}
  explicit Call(std::function<void()> code) : code_(std::move(code)) {}
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  oxutils::Function function() { return oxutils::Function(this, &Call::run); }
  int count() const { return count_; }

 private:
  void run() {
    ++count_;
    code_();
  }

  const std::function<void()> code_;
  std::atomic<int> count_{0};
};

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_NET_CALL_H_
