// ControlledPair: a conversation with options, whose deliveries are measured.
#ifndef TARN_TESTS_SIM_CONTROLLED_PAIR_H_
#define TARN_TESTS_SIM_CONTROLLED_PAIR_H_

#include <cstdint>
#include <utility>
#include <vector>

#include "tarn/control.h"
#include "tests/sim/link.h"
#include "tests/sim/pair.h"
#include "tests/sim/random.h"
#include "tests/sim/settings.h"
#include "tests/sim/world.h"

namespace tarn_sim {

// Two sessions: a sends numbered messages, b gets them. Ends the run when one is missing, repeated
// or out of order.
class ControlledPair {
 public:
  struct Side {
    TarnProfile profile = TARN_PROFILE_PLAIN;
    std::vector<std::pair<TarnOption, long long>> options;  // on top of the profile
  };
  struct Plan {
    Settings settings;
    Side a;
    Side b;
    LinkSettings link_ab = measured_way();
    LinkSettings link_ba = measured_way();

    bool is_plain() const { return a.profile == TARN_PROFILE_PLAIN && a.options.empty(); }
  };
  ControlledPair(World& world, const Plan& plan, Random random);
  // Ends the sessions, whatever is under way.
  ~ControlledPair();
  ControlledPair(const ControlledPair&) = delete;
  ControlledPair& operator=(const ControlledPair&) = delete;

  // a sends a message of at least 8 bytes: a plain one whatever becomes of it, one with options as
  // soon as it has room; false when that was not before `deadline`.
  bool send(size_t size, uint64_t deadline);
  // Until b has got `count` messages or the deadline has come.
  void wait_for_deliveries(uint64_t count, uint64_t deadline);

  uint64_t delivered() const { return delivered_; }

 private:
  void* open(const Side& side, Link& outbound);
  void receive(void* session, Link& inbound);
  int try_send(size_t size);
  void got(const char* data);
  static int on_output(char* data, int len, void* link);
  static int on_message(char* data, int len, void* pair);
  static void on_writable(void* session, void* pair);

  World& world_;
  const Plan plan_;
  Link link_ab_;
  Link link_ba_;
  void* a_ = nullptr;
  void* b_ = nullptr;
  bool receiving_ = true;
  uint64_t sent_ = 0;
  uint64_t delivered_ = 0;
  TaskId receiver_a_ = 0;
  TaskId receiver_b_ = 0;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_CONTROLLED_PAIR_H_
