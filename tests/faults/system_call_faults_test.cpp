// One system call of the library fails once, wherever it may: nothing hangs, crashes or leaks, and
// the library works on.
#include <gtest/gtest.h>

#include "tests/faults/fault_sweep.h"

using namespace tarn_test;

namespace {

constexpr unsigned long kSample = 4;

class SystemCallFaults : public ::testing::TestWithParam<Scenario> {};

}  // namespace

TEST_P(SystemCallFaults, AreSurvivedWithoutAHangOrALeak) {
  sweep(GetParam(), system_call_faults(), kSample);
}

INSTANTIATE_TEST_SUITE_P(Each, SystemCallFaults, ::testing::ValuesIn(all_scenarios()),
                         name_of_parameter);
