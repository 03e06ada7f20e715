// How a simulated run ends when a rule is broken.
#ifndef TARN_TESTS_SIM_FAILURE_H_
#define TARN_TESTS_SIM_FAILURE_H_

#include <fmt/format.h>

#include <string>

namespace tarn_sim {

// Prints what is wrong, when it happened and in which task, and ends the process. Whoever started
// the run adds the seed and how to replay it.
[[noreturn]] void fail_with(const std::string& what);

template <typename... Args>
[[noreturn]] void fail(fmt::format_string<Args...> format, Args&&... args) {
  fail_with(fmt::format(format, std::forward<Args>(args)...));
}

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_FAILURE_H_
