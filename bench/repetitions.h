// How often and how long benchmarks run.
#ifndef TARN_BENCH_REPETITIONS_H_
#define TARN_BENCH_REPETITIONS_H_

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

namespace bench {

// What counts of several runs: the one that a quarter of them beat. What else a machine has to do
// only ever slows runs down, and often more than half of them.
inline double quartile(const std::vector<double>& runs) {
  std::vector<double> sorted = runs;
  std::sort(sorted.begin(), sorted.end());
  return sorted[sorted.size() / 4];
}

inline void aggregated(benchmark::internal::Benchmark* benchmark) {
  benchmark->ComputeStatistics("quartile", quartile)->DisplayAggregatesOnly(true);
}

// Many short runs, so that what is compared meets the same machine.
inline void repeated(benchmark::internal::Benchmark* benchmark) {
  aggregated(benchmark->Repetitions(25)->MinTime(0.1));
}

// The same for what more than one thread works at: by the clock, and the CPU time of all of them.
inline void with_all_threads(benchmark::internal::Benchmark* benchmark) {
  repeated(benchmark->MeasureProcessCPUTime()->UseRealTime());
}

// The same, a given number of times: for benchmarks that leave something behind, or that take long
// to set up.
template <long count>
void times(benchmark::internal::Benchmark* benchmark) {
  aggregated(benchmark->Iterations(count)->Repetitions(5));
}

}  // namespace bench

#endif  // TARN_BENCH_REPETITIONS_H_
