// One allocation of the library fails: the process may end for want of memory, at once and by its
// own decision; nothing hangs or is corrupted, and where the process lives on, the library does.
#include <gtest/gtest.h>

#include "tests/faults/fault_sweep.h"

using namespace tarn_test;

namespace {

constexpr unsigned long kSample = 25;

class AllocationFaults : public ::testing::TestWithParam<Scenario> {};

}  // namespace

TEST_P(AllocationFaults, EndTheProcessOrAreSurvived) {
  sweep(GetParam(), allocation_faults(), kSample);
}

INSTANTIATE_TEST_SUITE_P(Each, AllocationFaults, ::testing::ValuesIn(all_scenarios()),
                         name_of_parameter);
