// ControlPlan: what an application asks of its session by way of tarn/control.h.
#ifndef TARN_TESTS_SIM_CONTROL_PLAN_H_
#define TARN_TESTS_SIM_CONTROL_PLAN_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tarn/control.h"
#include "tests/sim/settings.h"

namespace tarn_sim {

struct OptionSetting {
  TarnOption option;
  long long value;
};

struct ControlPlan {
  bool on = false;
  bool late = false;  // the first call comes while the session is in use
  TarnProfile profile = TARN_PROFILE_PLAIN;
  std::vector<OptionSetting> options;  // set after the profile
  std::vector<OptionSetting> changes;  // one after the other, while it talks
  unsigned int senders = 1;            // tasks that send
  double try_share = 0;                // of the reliable messages that may be refused
  double callback_share = 0;           // of those that wait for the writable callback to take them
  double pause_share = 0;              // of the deliveries that pause the session
  uint64_t reader_ns = 0;              // up to this long between its reader's turns; 0: no reader
};

// What a session may do at most, whichever of its options is in force: values that a plan never
// sets are those of the process.
struct ControlLimits {
  ControlLimits(const Settings& settings, const ControlPlan& plan);

  // The longest message that is taken for certain, sooner or later.
  size_t longest_message() const;

  unsigned int mtu;
  unsigned int most_sent;  // segments in the send window
  unsigned int least_sent;
  unsigned int most_early;  // and in the receive window
  unsigned int least_early;
  uint64_t most_queued = 0;  // bytes
  uint64_t least_queued = UINT64_MAX;
  uint64_t most_ahead = 0;  // numbers
  uint64_t longest_message_received = UINT64_MAX;
  uint32_t active_timeout;    // the shortest
  uint32_t peer_timeout = 0;  // the shortest; 0: none
  bool keeps_alive = false;
  bool is_strict = false;
  bool has_options;  // at some time
  bool begins_with_options;

 private:
  void allow(const OptionSetting& setting);
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_CONTROL_PLAN_H_
