// TarnLog: the library's one way to say something.
#ifndef TARN_SRC_TARN_LOG_H_
#define TARN_SRC_TARN_LOG_H_

#include <stdint.h>

#include <atomic>

#include "oxutils/singleton.h"

// Passes formatted messages to the application's callbacks, on the thread that logs. Any thread; no
// lock: settings are read as they stand, and no lock of the library may be held while logging,
// since a log callback may call the library. What was written before a callback was set, or a
// level, is visible to the callback. The instance lives for ever: the worker may log until the
// process is gone.
class TarnLog : public oxutils::singleton<TarnLog> {
 public:
  static constexpr bool kLivesForEver = true;

  using LogLevel = int32_t;
  static constexpr LogLevel LOG_ERROR = 1;    // failed system calls, malformed sizes
  static constexpr LogLevel LOG_WARN = 2;     // rejected calls, protocol anomalies
  static constexpr LogLevel LOG_INFO = 3;     // lifecycle
  static constexpr LogLevel LOG_DEBUG = 4;    // control traffic, runtime detail
  static constexpr LogLevel LOG_VERBOSE = 5;  // every datagram and payload

  virtual void set_log_callback(void (*callback)(const char*));
  virtual void set_log_callback2(void (*callback)(int, const char*));
  // Messages of a level above `level` are dropped; 0, the default, drops all.
  virtual void set_log_level(LogLevel level);

  bool enabled(LogLevel level) const { return threshold_.load(std::memory_order_relaxed) >= level; }

  // printf conventions; the text is cut to 1023 characters.
  void write(LogLevel level, const char* format, ...) __attribute__((cold, format(printf, 3, 4)));

 private:
  std::atomic<LogLevel> threshold_{0};
  std::atomic<void (*)(const char*)> callback_{nullptr};
  std::atomic<void (*)(int, const char*)> callback2_{nullptr};
};

// Logs without evaluating the arguments of a message that nobody hears.
#define TARN_LOG(level, ...)                                             \
  do {                                                                   \
    TarnLog* const tarn_log_ = TarnLog::instance();                      \
    if (tarn_log_->enabled(level)) tarn_log_->write(level, __VA_ARGS__); \
  } while (false)

#define TARN_LOG_ERROR(...) TARN_LOG(TarnLog::LOG_ERROR, __VA_ARGS__)
#define TARN_LOG_WARN(...) TARN_LOG(TarnLog::LOG_WARN, __VA_ARGS__)
#define TARN_LOG_INFO(...) TARN_LOG(TarnLog::LOG_INFO, __VA_ARGS__)
#define TARN_LOG_DEBUG(...) TARN_LOG(TarnLog::LOG_DEBUG, __VA_ARGS__)
#define TARN_LOG_VERBOSE(...) TARN_LOG(TarnLog::LOG_VERBOSE, __VA_ARGS__)

#endif  // TARN_SRC_TARN_LOG_H_
