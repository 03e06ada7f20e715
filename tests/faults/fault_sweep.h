// Tries every fault of a table at every call that a scenario makes.
#ifndef TARN_TESTS_FAULTS_FAULT_SWEEP_H_
#define TARN_TESTS_FAULTS_FAULT_SWEEP_H_

#include <vector>

#include "tests/faults/fault_table.h"
#include "tests/faults/play.h"

namespace tarn_test {

// Failures of the running test tell what went wrong; the number of faults that struck is printed.
// By default up to `sample` calls of each function are tried, the first and the last among them;
// all of them with TARN_FAULTS_ALL set in the environment.
void sweep(const Scenario& scenario, const std::vector<Fault>& faults, unsigned long sample);

}  // namespace tarn_test

#endif  // TARN_TESTS_FAULTS_FAULT_SWEEP_H_
