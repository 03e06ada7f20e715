// Collects the library's log lines while it lives. One at a time per process.
#ifndef TARN_TESTS_SUPPORT_LOG_CAPTURE_H_
#define TARN_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <string>
#include <vector>

namespace tarn_test {

struct LogLine {
  int level;
  std::string text;
};

class LogCapture {
 public:
  // Passes on messages of at most `level`, through tarn_set_log_callback2.
  explicit LogCapture(int level = 5);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> lines() const;
  // Lines equal to `text` at `level`.
  int count(int level, const std::string& text) const;
  // Lines, at any level, that contain `part`.
  int count_containing(const std::string& part) const;
  void clear();
  // Waits until a line contains `part`; false after `ms` milliseconds.
  bool wait_for(const std::string& part, int ms = 5000) const;
};

// What the library's "%p" makes of a pointer.
std::string pointer_text(const void* pointer);

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_LOG_CAPTURE_H_
