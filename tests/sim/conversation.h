// Conversation: two endpoints, the links between them and the tasks that work on them.
#ifndef TARN_TESTS_SIM_CONVERSATION_H_
#define TARN_TESTS_SIM_CONVERSATION_H_

#include <memory>
#include <string>
#include <vector>

#include "tests/sim/endpoint.h"
#include "tests/sim/link.h"
#include "tests/sim/lobby.h"
#include "tests/sim/plan.h"
#include "tests/sim/session_socket.h"
#include "tests/sim/stream.h"

namespace tarn_sim {

// One conversation through its life: open, send what the scripts say over the impaired links, heal
// the links, see everything arrive and be acknowledged in time, destroy.
class Conversation {
 public:
  // `lobby` is where b waits for a when its handle comes from a listener.
  Conversation(World& world, const Plan& plan, const Round& round, const ConversationPlan& own,
               Random random, Lobby& lobby);
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;

  void open();
  // Begins the scripts; returns when both have come to their end.
  void run();
  // The applications keep out of the way of the threads that they are called on.
  void calm_down();
  // Requires: nothing disturbs this run any more but the taking of turns.
  void heal_and_settle();
  // Requires: the applications are calm.
  void check_counters();
  void destroy();
  // The sessions are gone and so are the tasks.
  void finish();

  // To be called whenever another task may have run.
  void observe();
  uint64_t errors(TarnError code) const;
  uint64_t messages_delivered() const;
  uint64_t datagrams() const { return link_ab_.datagrams() + link_ba_.datagrams(); }

 private:
  // One end with what belongs to it.
  struct Side {
    Endpoint& endpoint;
    const Stream& out;
    Link& inbound;
    const Script& script;
    uint32_t conv;
    Random random;
    unsigned int players = 0;  // that have not come to their end
    Ports ports{};
    std::unique_ptr<SessionSocket> socket{};  // unless callbacks are its path
  };

  void start(Side& side, void* io);
  void meet();
  void knock(void* io);
  void destroy_sessions();
  void close_sockets();
  void receive(Side& side);
  void play(Side& side);
  void send_one(Side& side);
  void try_one(Side& side, size_t size);
  void send_bounded(Side& side, size_t size);
  void control(Side& side);
  void resume();
  void check_counters(Endpoint& endpoint);
  void meddle(Side& side);
  size_t draw_size(Side& side) const;
  void wait_for_room(Side& side, size_t size);
  std::vector<TaskId> spawn_players(Side& side);
  void restart_b(const std::vector<TaskId>& players_b);
  void cut_off_a();
  void be_a_stranger();
  bool is_disturbed() const;
  bool is_out_of_time() const;
  bool has_settled();
  uint64_t time_to_settle();
  void check_resends() const;

  World& world_;
  const Round& round_;
  const ConversationPlan& plan_;
  Lobby& lobby_;
  Random random_;
  Link link_ab_;
  Link link_ba_;
  Stream stream_ab_;
  Stream stream_ba_;
  Stream stream_fresh_;
  Endpoint a_;
  Endpoint b_;
  Side side_a_;
  Side side_b_;
  std::unique_ptr<Endpoint> fresh_b_;  // once b has started anew
  std::unique_ptr<Side> fresh_side_;
  std::vector<TaskId> receivers_;
  bool receiving_ = true;
  uint64_t opened_at_ = 0;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_CONVERSATION_H_
