// Arrivals: what a thread has received, for another one to wait for.
#ifndef TARN_BENCH_ARRIVALS_H_
#define TARN_BENCH_ARRIVALS_H_

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace bench {

// Any thread. Waiting takes no CPU time, so that what the process takes is that of the work.
class Arrivals {
 public:
  void add() {
    const std::lock_guard<std::mutex> hold(lock_);
    if (++count_ == expected_) complete_.notify_one();
  }

  // Before they are sent.
  void expect(long more) {
    const std::lock_guard<std::mutex> hold(lock_);
    expected_ = count_ + more;
  }

  // False when what is expected does not come.
  bool wait() {
    std::unique_lock<std::mutex> hold(lock_);
    return complete_.wait_for(hold, kPatience, [this] { return count_ >= expected_; });
  }

  // A receive callback whose `user` is an Arrivals.
  static int add_message(char*, int, void* arrivals) {
    static_cast<Arrivals*>(arrivals)->add();
    return 0;
  }

 private:
  static constexpr std::chrono::seconds kPatience{1};

  std::mutex lock_;
  std::condition_variable complete_;
  long count_ = 0;
  long expected_ = 0;
};

}  // namespace bench

#endif  // TARN_BENCH_ARRIVALS_H_
