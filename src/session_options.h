// SessionOptions: what has been set on one session.
#ifndef TARN_SRC_SESSION_OPTIONS_H_
#define TARN_SRC_SESSION_OPTIONS_H_

#include "oxutils/relaxed.h"
#include "src/tarn_config.h"
#include "tarn/control.h"

// Read on any thread without a lock; each value is whole, and used when it is looked at.
class SessionOptions {
 public:
  SessionOptions();
  SessionOptions(const SessionOptions&) = delete;
  SessionOptions& operator=(const SessionOptions&) = delete;

  static bool exists(TarnOption option);
  // Whether there is such an option and it may have this value.
  static bool accepts(TarnOption option, long long value);

  // Requires: accepts().
  void set(TarnOption option, long long value);
  // What is in force. Requires: exists().
  long long get(TarnOption option) const;
  // The same for those that no setting of the process stands for.
  long long own(TarnOption option) const { return values_[option]; }
  // Follow the process, and have no more of control.h, as before the first set().
  void clear();
  bool any() const { return any_; }

  // Where a session finds a limit that it has, or else shares with the process.
  using Limit = oxutils::relaxed<unsigned int>;
  const Limit* active_timeout() const;
  const Limit* send_window() const;
  const Limit* recv_window() const;

 private:
  static constexpr int kCount = TARN_OPTION_COALESCE_MS + 1;

  oxutils::relaxed<bool> any_{false};
  oxutils::relaxed<bool> is_set_[kCount];
  oxutils::relaxed<long long> values_[kCount];
  Limit active_timeout_;
  Limit send_window_;
  Limit recv_window_;
};

#endif  // TARN_SRC_SESSION_OPTIONS_H_
