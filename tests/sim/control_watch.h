// ControlWatch: what tarn/control.h promises of one session, beside what is seen of it.
#ifndef TARN_TESTS_SIM_CONTROL_WATCH_H_
#define TARN_TESTS_SIM_CONTROL_WATCH_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "tarn/control.h"
#include "tests/sim/control_plan.h"
#include "tests/sim/world.h"

namespace tarn_sim {

// Breaks the run off when a promise is not kept. Counts what the session's counters count, from
// datagrams, callbacks and the results of calls alone.
class ControlWatch {
 public:
  ControlWatch(World& world, std::string name, const ControlLimits& limits)
      : world_(world), name_(std::move(name)), limits_(limits) {}

  TarnStats& seen() { return seen_; }

  // --- Sending ---

  // A call that sends a message, or none.
  struct Attempt {
    size_t size = 0;
    uint64_t begun = 0;  // points
    uint64_t calls = 0;
    uint64_t feeds = 0;
    // What tarn_send_room() has said since, if nobody else was in a call.
    std::optional<size_t> room{};
  };
  Attempt begin(size_t size);
  void end() { --attempts_; }
  bool is_alone() const { return attempts_ == 1; }
  // tarn_send_reliable() has returned, and has taken the message or not.
  void end_send(const Attempt& attempt, bool taken);
  void begin_try() { ++tries_; }
  void end_try(const Attempt& attempt, int result);
  // A datagram begins or ends to be fed, an option changes.
  void on_feed() { ++feeds_; }
  void on_change() { ++calls_; }
  // The writable callback runs, and returns.
  void begin_telling();
  void end_telling() { is_telling_ = false; }
  // The point at which it began last.
  uint64_t told_at() const { return told_at_; }
  // Whether somebody has been refused and not been told since.
  bool is_waiting() const { return tries_ > 0 || refused_at_ > told_at_; }

  // --- Receiving ---

  // A call that pauses or resumes.
  struct Pause {
    bool on;
    uint64_t resumes;
  };
  Pause begin_pause(bool on);
  // `others`: somebody else may be delivering.
  void end_pause(const Pause& pause, bool others);
  bool is_paused() const { return is_paused_; }
  void on_delivery(size_t size);
  void on_too_large();

  // --- Counters ---

  // The first one that differs from what was seen, as text; empty if there is none. `is_trusted`:
  // datagrams arrive as they were sent.
  std::string find_difference(const TarnStats& stats, bool is_trusted) const;

 private:
  void check_room(const Attempt& attempt, bool taken) const;

  World& world_;
  const std::string name_;
  const ControlLimits limits_;
  TarnStats seen_{};
  uint64_t attempts_ = 0;  // under way
  uint64_t tries_ = 0;     // of these, by tarn_try_send_reliable()
  uint64_t calls_ = 0;     // that may leave less room
  uint64_t feeds_ = 0;
  uint64_t tellings_ = 0;
  uint64_t refusals_ = 0;    // of tries
  uint64_t refused_at_ = 0;  // points
  uint64_t told_at_ = 0;
  bool is_telling_ = false;
  bool is_paused_ = false;
  uint64_t resumes_ = 0;
  bool one_may_come_ = false;  // was on its way when it was paused
  bool is_too_large_ = false;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_CONTROL_WATCH_H_
