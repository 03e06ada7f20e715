// The one way in which a fuzz target says that something is wrong.
#ifndef TARN_TESTS_FUZZ_SUPPORT_FUZZ_CHECK_H_
#define TARN_TESTS_FUZZ_SUPPORT_FUZZ_CHECK_H_

#include <stdio.h>
#include <stdlib.h>

namespace tarn_fuzz {

[[noreturn]] inline void check_failed(const char* file, int line, const char* condition) {
  fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
  abort();
}

}  // namespace tarn_fuzz

// Ends the process, which every fuzzing driver takes for a finding.
#define FUZZ_CHECK(condition) \
  ((condition) ? static_cast<void>(0) : ::tarn_fuzz::check_failed(__FILE__, __LINE__, #condition))

#endif  // TARN_TESTS_FUZZ_SUPPORT_FUZZ_CHECK_H_
