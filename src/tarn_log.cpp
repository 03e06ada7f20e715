#include "src/tarn_log.h"

#include <stdarg.h>
#include <stdio.h>

void TarnLog::set_log_callback(void (*callback)(const char*)) {
  callback_.store(callback, std::memory_order_release);
}

void TarnLog::set_log_callback2(void (*callback)(int, const char*)) {
  callback2_.store(callback, std::memory_order_release);
}

void TarnLog::set_log_level(LogLevel level) { threshold_.store(level, std::memory_order_release); }

void TarnLog::write(LogLevel level, const char* format, ...) {
  // Once more, in order: the look before this call was not.
  if (threshold_.load(std::memory_order_acquire) < level) return;
  char text[1024] = {};
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);

  // Each pointer is read once: another thread may clear it between the test and the call.
  if (const auto callback = callback_.load(std::memory_order_acquire)) callback(text);
  if (const auto callback2 = callback2_.load(std::memory_order_acquire)) callback2(level, text);
}
