// Death tests of the assertion: the whole line, and the abort after it.
#ifndef TARN_TESTS_SUPPORT_KIT_DEATH_H_
#define TARN_TESTS_SUPPORT_KIT_DEATH_H_

#include <gtest/gtest.h>
#include <signal.h>

#include <string>

namespace tarn_test {

// `text` as an extended regular expression that matches just that text.
inline std::string quoted_regex(const std::string& text) {
  std::string regex;
  for (const char c : text) {
    if (std::string(R"(.[](){}*+?^$|\)").find(c) != std::string::npos) regex += '\\';
    regex += c;
  }
  return regex;
}

// Matches the one line of a failed check that has no agreed line number.
inline std::string assertion_without_line(const std::string& source, const std::string& function,
                                          const std::string& condition) {
  return "(^|\n)" + quoted_regex(source) +
         ":[0-9]+: " + quoted_regex(function + ": assertion \"" + condition + "\" failed") + "\n";
}

// Matches the one line of a failed check.
inline std::string assertion_line(const std::string& source, int line, const std::string& function,
                                  const std::string& condition) {
  return "(^|\n)" +
         quoted_regex(source + ":" + std::to_string(line) + ": " + function + ": assertion \"" +
                      condition + "\" failed") +
         "\n";
}

}  // namespace tarn_test

// The statement aborts after writing a line that matches `regex`. It runs in a program started
// afresh: a plain fork would carry over a process that may have threads.
#define EXPECT_ABORT(statement, regex)                                 \
  do {                                                                 \
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";            \
    EXPECT_EXIT(statement, ::testing::KilledBySignal(SIGABRT), regex); \
  } while (false)

#define EXPECT_ASSERTION(statement, source, line, function, condition) \
  EXPECT_ABORT(statement, ::tarn_test::assertion_line(source, line, function, condition))

#endif  // TARN_TESTS_SUPPORT_KIT_DEATH_H_
