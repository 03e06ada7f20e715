// What the tests of single pieces say about a scenario.
#ifndef TARN_TESTS_INTERLEAVE_SCENARIOS_H_
#define TARN_TESTS_INTERLEAVE_SCENARIOS_H_

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <memory>

#include "tests/interleave/explorer.h"
#include "tests/support/kit_sanitizer.h"

namespace tarn_test {

template <typename T>
Verdict explore(size_t threads, size_t deviations) {
  return Explorer(threads, deviations, [] { return std::make_unique<T>(); }).explore();
}

// Every run keeps the rules; and there are many, as a scenario that never meets itself shows
// nothing. AddressSanitizer makes a run 50 times as long: then only the first deviations are tried.
template <typename T>
void expect_holds(size_t threads, size_t deviations, size_t least_runs) {
  constexpr size_t kFew = 2;
  const Verdict verdict = explore<T>(threads, kAddressSanitizer ? kFew : deviations);
  EXPECT_EQ(verdict.broken, "") << "TARN_INTERLEAVE_SCHEDULE=" << verdict.schedule << "\n"
                                << verdict.trace;
  EXPECT_GE(verdict.runs, kAddressSanitizer ? 2 : least_runs);
  printf("%zu runs\n", verdict.runs);
}

}  // namespace tarn_test

#endif  // TARN_TESTS_INTERLEAVE_SCENARIOS_H_
