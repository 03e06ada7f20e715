// How often and how long benchmarks run.
#ifndef TARN_BENCH_REPETITIONS_H_
#define TARN_BENCH_REPETITIONS_H_

#include <benchmark/benchmark.h>

namespace bench {

// Several runs, of which the median counts.
inline void with_median(benchmark::internal::Benchmark* benchmark) {
  benchmark->Repetitions(5)->DisplayAggregatesOnly(true)->MinTime(0.5);
}

// The same for what more than one thread works at: by the clock, and the CPU time of all of them.
inline void with_all_threads(benchmark::internal::Benchmark* benchmark) {
  with_median(benchmark->MeasureProcessCPUTime()->UseRealTime());
}

// The same, a given number of times: for benchmarks that leave something behind, or that take long
// to set up.
template <long count>
void times(benchmark::internal::Benchmark* benchmark) {
  benchmark->Iterations(count)->Repetitions(3)->DisplayAggregatesOnly(true);
}

}  // namespace bench

#endif  // TARN_BENCH_REPETITIONS_H_
