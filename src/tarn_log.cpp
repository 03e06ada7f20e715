#include "src/tarn_log.h"

#include <stdarg.h>
#include <stdio.h>

// The instance outlives everything: the worker may log until the process is gone.
TarnLog::TarnLog() { free_ = true; }

TarnLog::~TarnLog() = default;

void TarnLog::set_log_callback(void (*callback)(const char*)) { callback_ = callback; }

void TarnLog::set_log_callback2(void (*callback)(int, const char*)) { callback2_ = callback; }

void TarnLog::set_log_level(LogLevel level) { threshold_ = level; }

void TarnLog::write(LogLevel level, const char* format, ...) {
  if (!enabled(level)) return;
  char text[1024] = {};
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);

  // Each pointer is read once: another thread may clear it between the test and the call.
  if (const auto callback = callback_.load()) callback(text);
  if (const auto callback2 = callback2_.load()) callback2(level, text);
}
