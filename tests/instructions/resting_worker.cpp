#include "tests/instructions/resting_worker.h"

#include <utility>

namespace instructions {

RestingWorker::RestingWorker(tarn_test::VirtualClock& clock) {
  constexpr unsigned int kCycleMs = 1;
  constexpr unsigned int kDefaultCycleMs = 50;
  constexpr unsigned int kDefaultSilenceMs = 5000;
  tarn_config_active_timeout(0);
  tarn_config_rtx_timeout(kCycleMs);
  session_ = tarn_create();
  tarn_set_error_callback(session_, rest_callback, this);
  clock.advance_ms(kCycleMs + 1);
  std::unique_lock<std::mutex> hold(mutex_);
  changed_.wait(hold, [this] { return rests_; });
  tarn_config_rtx_timeout(kDefaultCycleMs);
  tarn_config_active_timeout(kDefaultSilenceMs);
}

RestingWorker::~RestingWorker() {
  tarn_destroy(session_);  // before the worker goes on: it does not call again
  std::unique_lock<std::mutex> hold(mutex_);
  released_ = true;
  changed_.notify_all();
  changed_.wait(hold, [this] { return !rests_; });
}

void RestingWorker::run(std::function<void()> job) {
  std::unique_lock<std::mutex> hold(mutex_);
  job_ = std::move(job);
  changed_.notify_all();
  changed_.wait(hold, [this] { return !job_; });
}

int RestingWorker::rest_callback(TarnError code, void* self) {
  if (code == TARN_ERROR_INACTIVE) static_cast<RestingWorker*>(self)->rest();
  return 0;
}

void RestingWorker::rest() {
  std::unique_lock<std::mutex> hold(mutex_);
  rests_ = true;
  changed_.notify_all();
  while (true) {
    changed_.wait(hold, [this] { return released_ || job_; });
    if (!job_) break;
    job_();
    job_ = nullptr;
    changed_.notify_all();
  }
  rests_ = false;
  changed_.notify_all();
}

}  // namespace instructions
