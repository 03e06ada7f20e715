// What sessions cost that nobody uses: the share of one core, and heap; and what it costs to create
// and destroy one.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <time.h>
#include <unistd.h>

#include "bench/one_cpu.h"
#include "bench/repetitions.h"
#include "bench/sessions.h"
#include "bench/worker.h"
#include "tarn/tarn.h"

namespace bench {
namespace {

double process_cpu_seconds() {
  timespec now;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void IdleSessions(benchmark::State& state) {
  constexpr unsigned int kSeconds = 2;
  const auto count = static_cast<size_t>(state.range(0));
  tarn_init();
  wait_for_worker();
  const size_t heap_before = mallinfo2().uordblks;
  const Sessions sessions(count);
  const size_t heap = mallinfo2().uordblks - heap_before;
  double cpu = 0;
  for (auto _ : state) {
    const double before = process_cpu_seconds();
    sleep(kSeconds);
    cpu = (process_cpu_seconds() - before) / kSeconds;
    state.SetIterationTime(cpu);
  }
  state.counters["core_percent"] = cpu * 100;
  state.counters["heap_per_session"] = static_cast<double>(heap) / static_cast<double>(count);
  if (!sessions.complete()) state.SkipWithError("a session was not created");
}
BENCHMARK(IdleSessions)->Arg(1000)->Arg(10000)->UseManualTime()->Apply(times<1>);

// CPU time of both threads: the worker's share of the work is waited for.
void CreateAndDestroy(benchmark::State& state) {
  constexpr int kBatch = 100;
  const OneCpu here;
  const Sessions others(static_cast<size_t>(state.range(0)));
  bool done = others.complete();
  while (state.KeepRunningBatch(kBatch)) {
    for (int i = 0; i < kBatch; ++i) {
      void* const session = tarn_create();
      done = session != nullptr && tarn_destroy(session) == 0 && done;
    }
    wait_for_worker();
  }
  if (!done) state.SkipWithError("a session was not created or not destroyed");
}
BENCHMARK(CreateAndDestroy)
    ->Arg(10)
    ->Arg(10000)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Apply(times<20'000>);

}  // namespace
}  // namespace bench
