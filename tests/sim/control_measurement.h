// ControlMeasurement: what sessions with options deliver where plain ones lose, in virtual time.
#ifndef TARN_TESTS_SIM_CONTROL_MEASUREMENT_H_
#define TARN_TESTS_SIM_CONTROL_MEASUREMENT_H_

#include <cstdint>

#include "tests/sim/measurement.h"

namespace tarn_sim {

// Measures and prints as measure() does; checked is that the least figures are reached. Ends the
// process.
[[noreturn]] void measure_control(uint64_t seed, Report report);

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_CONTROL_MEASUREMENT_H_
