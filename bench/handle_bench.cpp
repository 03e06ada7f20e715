// What it costs to find the session of a handle, which every call does first.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "bench/repetitions.h"
#include "bench/sessions.h"
#include "tarn/tarn.h"

namespace bench {
namespace {

constexpr size_t kVisits = 1 << 14;

// One handle after the other, in no order, of as many sessions as given; tarn_get_conv() does
// little else.
void Handle(benchmark::State& state) {
  const Sessions sessions(static_cast<size_t>(state.range(0)));
  for (size_t i = 0; i < sessions.size(); ++i) {
    tarn_set_conv(sessions[i], static_cast<unsigned int>(i + 1));
  }
  std::mt19937 random(1);
  std::uniform_int_distribution<size_t> any(0, sessions.size() - 1);
  std::vector<void*> visits;
  unsigned long expected = 0;
  for (size_t i = 0; i < kVisits; ++i) {
    const size_t visited = any(random);
    visits.push_back(sessions[visited]);
    expected += visited + 1;
  }
  while (state.KeepRunningBatch(kVisits)) {
    unsigned long sum = 0;
    for (void* handle : visits) sum += tarn_get_conv(handle);
    if (sum == expected) continue;
    state.SkipWithError("a handle led to another session");
    break;
  }
}
BENCHMARK(Handle)->Arg(10)->Arg(10000)->Apply(repeated);

}  // namespace
}  // namespace bench
