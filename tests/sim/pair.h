// Pair: a conversation that is measured.
#ifndef TARN_TESTS_SIM_PAIR_H_
#define TARN_TESTS_SIM_PAIR_H_

#include <functional>

#include "tests/sim/endpoint.h"
#include "tests/sim/link.h"
#include "tests/sim/random.h"
#include "tests/sim/settings.h"
#include "tests/sim/stream.h"
#include "tests/sim/world.h"

namespace tarn_sim {

// A way of 20 ms, and 0 to 5 ms more for each datagram, on which none overtakes another.
LinkSettings measured_way();

// Two sessions: a sends messages, b gets them and sends nothing but acknowledgements. Both are
// watched as in any other run, so what breaks a rule ends this one.
class Pair {
 public:
  struct Plan {
    Settings settings;
    LinkSettings link_ab = measured_way();
    LinkSettings link_ba = measured_way();
  };
  // `delivered` is called for each message that b has got, at the time at which it got it. Makes
  // the settings the library's.
  Pair(World& world, const Plan& plan, Random random, std::function<void()> delivered);
  // Ends the sessions, whatever is under way.
  ~Pair();
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;

  // Waits until a's send window has room for a message of one segment.
  void wait_for_room();
  // a sends a message.
  void send(size_t size) { a_.send_reliable(size); }
  // Waits until everything has been acknowledged.
  void drain();
  // Waits for a while that is drawn: what a sends from then on falls together with the timers of
  // the two ends in another way. They begin in a way that is drawn, too.
  void change_phase();

  // Datagrams and their bytes that either end has sent.
  uint64_t datagrams() const { return link_ab_.datagrams() + link_ba_.datagrams(); }
  uint64_t bytes() const { return link_ab_.bytes() + link_ba_.bytes(); }

 private:
  void receive(Endpoint& endpoint, Link& inbound);
  void tell_deliveries();
  // Until a keeps at most `packets`.
  void wait_until_kept(unsigned int packets);

  World& world_;
  const Settings settings_;
  const std::function<void()> delivered_;
  Random random_;
  Link link_ab_;
  Link link_ba_;
  Stream stream_ab_;
  Stream stream_ba_;
  Endpoint a_;
  Endpoint b_;
  bool receiving_ = true;
  uint64_t told_ = 0;  // deliveries
  TaskId receiver_a_ = 0;
  TaskId receiver_b_ = 0;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_PAIR_H_
