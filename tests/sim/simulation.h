// Simulation: one run of the library under a plan.
#ifndef TARN_TESTS_SIM_SIMULATION_H_
#define TARN_TESTS_SIM_SIMULATION_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "tests/sim/conversation.h"
#include "tests/sim/heap.h"
#include "tests/sim/lobby.h"
#include "tests/sim/plan.h"
#include "tests/sim/tcp_talk.h"
#include "tests/sim/world.h"

namespace tarn_sim {

struct Outcome {
  uint64_t hash = 0;
  uint64_t events = 0;
  uint64_t points = 0;
  uint64_t virtual_ns = 0;
  uint64_t messages = 0;
  uint64_t datagrams = 0;
};

// Starts the library, plays the rounds of the plan and looks at what is left. Needs a process of
// its own, since the library's worker lives as long as the process.
class Simulation {
 public:
  // Requires: `plan` outlives it.
  Simulation(const Plan& plan, bool printing);

  // Ends the process when a rule is broken.
  Outcome run();

 private:
  static void on_log(int level, const char* text);

  void start_library();
  void warm_up();
  void warm_up_sockets();
  void play(const Round& round);
  void talk(const Round& round);
  void disturb();
  void update();
  void create_and_destroy_sessions();
  void let_timers_catch_up();
  void for_each_conversation(void (Conversation::*what)());
  void wait_for_quiet(const Settings& settings);
  void check_heap(const char* when);
  void check_descriptors() const;
  void check_expectations() const;

  const Plan& plan_;
  Random random_;
  World world_;
  Lobby lobby_;
  const bool has_sockets_;
  std::vector<std::unique_ptr<Conversation>> conversations_;
  std::vector<std::unique_ptr<TcpTalk>> tcp_talks_;
  bool disturbing_ = false;
  size_t next_step_ = 0;
  HeapUse empty_;  // what the library keeps when there are no sessions
  uint64_t errors_[kErrors] = {};
  Outcome outcome_;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_SIMULATION_H_
