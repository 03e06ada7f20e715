// What sessions cost that nobody uses: the share of one core, and heap.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <time.h>
#include <unistd.h>

#include <vector>

#include "tarn/tarn.h"

namespace {

double process_cpu_seconds() {
  timespec now;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void IdleSessions(benchmark::State& state) {
  constexpr unsigned int kSeconds = 2;
  tarn_config_rtx_timeout(50);
  tarn_config_active_timeout(3'600'000);
  tarn_init();
  const size_t heap_before = mallinfo2().uordblks;
  std::vector<void*> sessions(static_cast<size_t>(state.range(0)));
  for (void*& session : sessions) session = tarn_create();
  sleep(1);  // the worker files the timers
  const size_t heap = mallinfo2().uordblks - heap_before;

  double cpu = 0;
  for (auto _ : state) {
    const double before = process_cpu_seconds();
    sleep(kSeconds);
    cpu = (process_cpu_seconds() - before) / kSeconds;
    state.SetIterationTime(cpu);
  }
  state.counters["core_percent"] = cpu * 100;
  state.counters["heap_per_session"] =
      static_cast<double>(heap) / static_cast<double>(sessions.size());
  for (void* session : sessions) tarn_destroy(session);
  sleep(1);
}
BENCHMARK(IdleSessions)->Arg(1000)->Arg(10000)->Iterations(1)->UseManualTime();

void CreateAndDestroy(benchmark::State& state) {
  tarn_init();
  for (auto _ : state) tarn_destroy(tarn_create());
}
BENCHMARK(CreateAndDestroy);

}  // namespace
