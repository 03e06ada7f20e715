// Measurement: latency and throughput of the library in virtual time.
#ifndef TARN_TESTS_SIM_MEASUREMENT_H_
#define TARN_TESTS_SIM_MEASUREMENT_H_

#include <cstdint>
#include <functional>

#include "tests/sim/random.h"
#include "tests/sim/world.h"

namespace tarn_sim {

enum class Report { kTable, kJson, kCheck };

// Measures, with everything random drawn from `seed`, and prints the figures; with kCheck beside
// those of the design. Ends the process: with 1 if one was to be checked and is off by more than
// 5 %. Needs a process of its own, as every run.
[[noreturn]] void measure(uint64_t seed, Report report);

// Starts the library in a world of its own and ends the process: with 1 if `run`, which prints,
// returns more than 0.
[[noreturn]] void run_measurement(uint64_t seed, const std::function<int(World&, Random&)>& run);

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_MEASUREMENT_H_
