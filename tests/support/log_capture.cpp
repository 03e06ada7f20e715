#include "tests/support/log_capture.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include "tarn/tarn.h"

namespace tarn_test {
namespace {

// Never destroyed: the library's threads may log until the process is gone.
std::mutex& guard = *new std::mutex;
std::condition_variable& arrived = *new std::condition_variable;
std::vector<LogLine>& captured = *new std::vector<LogLine>;

void on_line(int level, const char* text) {
  const std::lock_guard<std::mutex> lock(guard);
  captured.push_back({level, text});
  arrived.notify_all();
}

bool contains(const LogLine& line, const std::string& part) {
  return line.text.find(part) != std::string::npos;
}

}  // namespace

LogCapture::LogCapture(int level) {
  tarn_set_log_callback2(level, on_line);
  clear();
}

LogCapture::~LogCapture() { tarn_set_log_callback2(0, nullptr); }

std::vector<LogLine> LogCapture::lines() const {
  const std::lock_guard<std::mutex> lock(guard);
  return captured;
}

int LogCapture::count(int level, const std::string& text) const {
  const std::vector<LogLine> all = lines();
  return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const LogLine& line) {
    return line.level == level && line.text == text;
  }));
}

int LogCapture::count_containing(const std::string& part) const {
  const std::vector<LogLine> all = lines();
  return static_cast<int>(std::count_if(all.begin(), all.end(),
                                        [&](const LogLine& line) { return contains(line, part); }));
}

void LogCapture::clear() {
  const std::lock_guard<std::mutex> lock(guard);
  captured.clear();
}

bool LogCapture::wait_for(const std::string& part, int ms) const {
  std::unique_lock<std::mutex> lock(guard);
  return arrived.wait_for(lock, std::chrono::milliseconds(ms), [&] {
    return std::any_of(captured.begin(), captured.end(),
                       [&](const LogLine& line) { return contains(line, part); });
  });
}

std::string pointer_text(const void* pointer) {
  char text[32];
  snprintf(text, sizeof text, "%p", pointer);
  return text;
}

}  // namespace tarn_test
