// Which failures each system call is made to show, and what may follow from them.
#ifndef TARN_TESTS_FAULTS_FAULT_TABLE_H_
#define TARN_TESTS_FAULTS_FAULT_TABLE_H_

#include <string>
#include <vector>

#include "tests/faults/fault_points.h"

namespace tarn_test {

// What the library owes to the one whose call it was.
enum class Outcome {
  kCompletes,    // it gets over it: what was wanted happens all the same
  kMaySpoil,     // the socket or thread at hand may be lost; everything else works on
  kOutOfMemory,  // the process ends for want of memory, or the scenario goes on
};

struct Fault {
  FaultPoint point;
  int error;  // errno, or what the call returns
  Outcome outcome;
  // Descriptors that stay open for the life of the process, beyond the usual three.
  int extra_descriptors = 0;
  bool lasts = false;  // every call after it fails as well, to the end of the scenario
};

const std::vector<Fault>& system_call_faults();
const std::vector<Fault>& allocation_faults();

// "accept4 ECONNABORTED"
std::string describe(const Fault& fault);

}  // namespace tarn_test

#endif  // TARN_TESTS_FAULTS_FAULT_TABLE_H_
