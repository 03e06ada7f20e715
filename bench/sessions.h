// Sessions: many sessions that only exist.
#ifndef TARN_BENCH_SESSIONS_H_
#define TARN_BENCH_SESSIONS_H_

#include <stddef.h>

#include <algorithm>
#include <vector>

#include "bench/settings.h"
#include "bench/worker.h"
#include "tarn/tarn.h"

namespace bench {

// Creates `count` sessions and destroys them at its end. In between, and after it, the worker has
// nothing left to do for their creation or destruction.
class Sessions {
 public:
  explicit Sessions(size_t count, const Settings& settings = Settings()) {
    settings.apply();
    tarn_init();
    handles_.resize(count);
    for (void*& handle : handles_) handle = tarn_create();
    wait_for_worker();
  }
  ~Sessions() {
    for (void* handle : handles_) tarn_destroy(handle);
    wait_for_worker();
  }
  Sessions(const Sessions&) = delete;
  Sessions& operator=(const Sessions&) = delete;

  // Whether all of them could be created.
  bool complete() const {
    return std::find(handles_.begin(), handles_.end(), nullptr) == handles_.end();
  }

  size_t size() const { return handles_.size(); }
  void* operator[](size_t i) const { return handles_[i]; }

 private:
  std::vector<void*> handles_;
};

}  // namespace bench

#endif  // TARN_BENCH_SESSIONS_H_
