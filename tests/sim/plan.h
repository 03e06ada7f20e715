// Plan: everything that is settled before a run begins.
#ifndef TARN_TESTS_SIM_PLAN_H_
#define TARN_TESTS_SIM_PLAN_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tests/sim/control_plan.h"
#include "tests/sim/endpoint.h"
#include "tests/sim/link.h"
#include "tests/sim/scheduler.h"
#include "tests/sim/settings.h"

namespace tarn_sim {

// What one application does until it has sent everything.
struct Script {
  unsigned int messages = 0;
  size_t smallest = 1;
  size_t largest = 1;
  double tiny_share = 0;        // of the messages that have at most 32 bytes
  uint64_t gap_ns = 0;          // up to this long between bursts
  bool even = false;            // always exactly that long
  unsigned int burst = 1;       // up to so many messages in a row
  double unreliable_share = 0;  // of the messages, half of them in place
  bool bounded = true;          // waits while the send window has no room for the next message
  double meddle_share = 0;      // of the messages that go with calls of other kinds
  Habits habits;
  ControlPlan control;
};

// How datagrams get from the library onto the links and back.
enum class Path {
  kCallbacks,  // through the output callback and tarn_input
  kSockets,    // through handles that the sessions are attached to
  kListener,   // as well, and b's comes from a listener
};

struct ConversationPlan {
  std::string name;
  LinkSettings link_ab;
  LinkSettings link_ba;
  Script script_a;
  Script script_b;
  uint32_t conv_a = 0;
  uint32_t conv_b = 0;
  uint64_t give_up_ns = 60 * kNsPerSecond;  // scripts that are not done by then end
  unsigned int wait_ms = 0;                 // of the destroys at the end
  double stranger_share = 0;  // of the moments at which somebody else's datagram arrives
  bool restart_b = false;     // b is destroyed and made anew halfway, a goes on; not by a listener
  Path path = Path::kCallbacks;
  bool cut_off_a = false;  // a's socket is destroyed halfway, its session is not
};

struct Round {
  Settings settings;
  std::vector<ConversationPlan> conversations;
  unsigned int tcp_talks = 0;  // beside them
};

struct ClockStep {
  uint64_t at_ns;
  int64_t ms;
};

struct Plan {
  std::string name;
  uint64_t seed = 0;
  Preemption preemption;
  uint64_t wall_ms = 0;
  std::vector<ClockStep> steps;
  double update_share = 0;  // of the milliseconds in which somebody calls tarn_update
  double leave_share = 0;   // of the callbacks inside such a call that throw through it
  int log_level = 0;
  std::vector<Round> rounds;
  // What has to have happened in the end.
  bool expect_overflow = false;
  bool expect_refusal = false;
  bool expect_silence = false;
};

// Whether anything uses sockets.
bool has_sockets(const Plan& plan);

// Nothing disturbs the rotation of re-sends in such a plan.
bool has_exact_timing(const Plan& plan, const ConversationPlan& conversation);

// A plan with everything in it drawn from the seed.
Plan draw_plan(uint64_t seed);

// Plans with a name.
std::vector<std::string> named_plans();
// Requires: one of these names.
Plan named_plan(const std::string& name, uint64_t seed);

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_PLAN_H_
