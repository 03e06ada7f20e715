// The library's worker.
#ifndef TARN_BENCH_WORKER_H_
#define TARN_BENCH_WORKER_H_

#include "src/tarn_thread.h"

namespace bench {

inline void do_nothing() {}

// Whether this is its thread. Requires: tarn_init().
inline bool on_worker() { return TarnThread::instance()->is_in_thread(); }

// Returns when everything handed to the worker so far has been done. Requires: tarn_init().
inline void wait_for_worker() { TarnThread::instance()->wait(oxutils::Function(&do_nothing)); }

}  // namespace bench

#endif  // TARN_BENCH_WORKER_H_
