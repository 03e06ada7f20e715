// Functions handed from one thread to another: to the worker and to the I/O thread.
#include <benchmark/benchmark.h>

#include "bench/one_cpu.h"
#include "bench/repetitions.h"
#include "oxutils/callback.h"
#include "src/tarn_thread.h"
#include "tarn/tarn.h"
#include "tarn_io/tarn_io_thread.h"

namespace bench {
namespace {

void count_run(long* runs) { ++*runs; }

// One function and back, with two changes of thread.
template <typename Thread>
void HandOverAndWait(benchmark::State& state) {
  const OneCpu here;
  tarn_init();
  Thread& thread = *Thread::instance();
  long runs = 0;  // read only after the other thread has said that it has written
  for (auto _ : state) thread.wait(oxutils::Function(&count_run, &runs));
  if (runs != static_cast<long>(state.iterations())) state.SkipWithError("functions did not run");
}

// One function of many that nobody waits for, but for the last one.
template <typename Thread>
void HandOver(benchmark::State& state) {
  constexpr long kBatch = 1000;
  const OneCpu here;
  tarn_init();
  Thread& thread = *Thread::instance();
  long runs = 0;
  long handed_over = 0;
  while (state.KeepRunningBatch(kBatch)) {
    for (long i = 1; i < kBatch; ++i) thread.run(oxutils::Function(&count_run, &runs));
    thread.wait(oxutils::Function(&count_run, &runs));
    handed_over += kBatch;
  }
  if (runs != handed_over) state.SkipWithError("functions did not run");
}

BENCHMARK_TEMPLATE(HandOverAndWait, TarnThread)->Apply(with_all_threads);
BENCHMARK_TEMPLATE(HandOverAndWait, TarnIoThread)->Apply(with_all_threads);
BENCHMARK_TEMPLATE(HandOver, TarnThread)->Apply(with_all_threads);
BENCHMARK_TEMPLATE(HandOver, TarnIoThread)->Apply(with_all_threads);

}  // namespace
}  // namespace bench
