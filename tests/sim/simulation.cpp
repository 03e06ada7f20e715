#include "tests/sim/simulation.h"

#include <array>

#include "tarn/io.h"
#include "tarn/tarn.h"
#include "tests/sim/boundary.h"
#include "tests/sim/failure.h"
#include "tests/sim/introspection.h"

namespace tarn_sim {
namespace {

// Sessions and handles that have been there once, at the same time and for each setting, so that
// the library's tables have their size: more than a run has, those included whose timers have not
// gone yet.
constexpr int kWarmUpSessions = 100;
constexpr int kWarmUpHandles =
    300;  // a peer whose other end is gone is made known with each datagram
constexpr int kWarmUpListeners = 4;
constexpr uint64_t kQuiet = 300 * kNsPerMs;
constexpr uint64_t kLongestCatchUp = 60 * kNsPerSecond;
constexpr uint32_t kOnTimeMs = 20;
// The I/O thread's own: a connection to itself and the listener that it came from.
constexpr size_t kLongLivedDescriptors = 4;
// I/O handles are kept for a while.
constexpr uint64_t kHandleRelease = 500 * kNsPerMs;

}  // namespace

Simulation::Simulation(const Plan& plan, bool printing)
    : plan_(plan),
      random_(plan.seed),
      world_(random_.fork(), plan.preemption, plan.wall_ms, printing),
      lobby_(world_),
      has_sockets_(has_sockets(plan)) {
  begin_outside();
}

void Simulation::on_log(int level, const char* text) {
  const OutsideLibrary outside;
  World& world = World::get();
  world.event("log {}", level);
  world.trace().note(world.scheduler().own_name(), text);
  world.scheduler().point();
  Endpoint::seen_in_log(world, text);
}

void Simulation::start_library() {
  const InsideLibrary inside;
  tarn_set_log_callback2(plan_.log_level, &Simulation::on_log);
  tarn_init();
}

void Simulation::warm_up() {
  for (const Round& round : plan_.rounds) {
    apply(round.settings);
    create_and_destroy_sessions();
    world_.scheduler().sleep(kQuiet + round.settings.rtx_timeout * kNsPerMs);
  }
  if (has_sockets_) warm_up_sockets();
  empty_ = library_heap();
  check_descriptors();
}

void Simulation::create_and_destroy_sessions() {
  std::array<void*, kWarmUpSessions> sessions;
  const InsideLibrary inside;
  for (void*& session : sessions) session = tarn_create();
  for (void* const session : sessions) tarn_destroy(session);
}

// Starts the I/O thread.
void Simulation::warm_up_sockets() {
  {
    const InsideLibrary inside;
    void* const session = tarn_create();
    std::array<void*, kWarmUpHandles> ios;
    for (void*& io : ios) io = tarn_create_udp_io("127.0.0.1", 9, 0);
    tarn_attach_io(session, ios[0]);
    tarn_destroy(session);
    for (void* const io : ios) tarn_destroy_io(io);
    std::array<void*, kWarmUpListeners> listeners;
    for (void*& listener : listeners) {
      listener = tarn_start_listen_udp(world_.network().reserve_port(), nullptr, nullptr);
    }
    for (void* const listener : listeners) tarn_stop_listen(listener);
  }
  wait_for_quiet(plan_.rounds.back().settings);
}

// A timer that was cancelled stays filed until it comes up.
void Simulation::wait_for_quiet(const Settings& settings) {
  world_.scheduler().sleep(kQuiet + settings.rtx_timeout * kNsPerMs + world_.timer_lag_ns() +
                           (has_sockets_ ? kHandleRelease : 0));
}

Outcome Simulation::run() {
  start_library();
  warm_up();
  world_.scheduler().set_observer([this] {
    for (const auto& each : conversations_) each->observe();
  });
  for (const Round& round : plan_.rounds) play(round);
  check_expectations();
  outcome_.hash = world_.trace().hash();
  outcome_.events = world_.trace().events();
  outcome_.points = world_.scheduler().points();
  outcome_.virtual_ns = world_.scheduler().now();
  return outcome_;
}

void Simulation::play(const Round& round) {
  apply(round.settings);
  for (const ConversationPlan& each : round.conversations) {
    conversations_.push_back(
        std::make_unique<Conversation>(world_, plan_, round, each, random_.fork(), lobby_));
  }
  disturbing_ = true;
  const TaskId disturber = world_.scheduler().spawn("disturber", [this] { disturb(); });
  if (has_sockets_) lobby_.open();
  for_each_conversation(&Conversation::open);
  talk(round);
  disturbing_ = false;
  world_.scheduler().join(disturber);
  world_.scheduler().end_stalls();
  world_.network().end_faults();
  for_each_conversation(&Conversation::calm_down);
  let_timers_catch_up();
  for_each_conversation(&Conversation::heal_and_settle);
  for_each_conversation(&Conversation::check_counters);
  for_each_conversation(&Conversation::destroy);
  for_each_conversation(&Conversation::finish);
  if (has_sockets_) lobby_.close();
  for (const auto& each : conversations_) {
    outcome_.messages += each->messages_delivered();
    outcome_.datagrams += each->datagrams();
    for (int code = 0; code < kErrors; ++code)
      errors_[code] += each->errors(static_cast<TarnError>(code));
  }
  wait_for_quiet(round.settings);
  conversations_.clear();
  tcp_talks_.clear();
  check_heap("when all sessions have been destroyed");
  check_descriptors();
}

// A worker that was held up runs what it has missed, timer by timer: 1,000 cycles a second of each
// session at worst, before it re-sends anything.
void Simulation::let_timers_catch_up() {
  Scheduler& scheduler = world_.scheduler();
  const uint64_t deadline = scheduler.now() + kLongestCatchUp;
  while (timers_late_ms(world_.tick()) > kOnTimeMs && scheduler.now() < deadline) {
    scheduler.sleep(kNsPerMs);
  }
}

// Conversations, and TCP beside them.
void Simulation::talk(const Round& round) {
  std::vector<TaskId> tasks;
  for (unsigned int i = 0; i < round.tcp_talks; ++i) {
    const std::string name = "tcp" + std::to_string(i + 1);
    tcp_talks_.push_back(std::make_unique<TcpTalk>(world_, name, random_.fork()));
    TcpTalk* const tcp = tcp_talks_.back().get();
    tasks.push_back(world_.scheduler().spawn(name, [tcp] { tcp->run(); }));
  }
  for_each_conversation(&Conversation::run);
  for (const TaskId each : tasks) world_.scheduler().join(each);
}

// All of them at once, each in a task of its own.
void Simulation::for_each_conversation(void (Conversation::*what)()) {
  std::vector<TaskId> tasks;
  for (const auto& each : conversations_) {
    Conversation* const conversation = each.get();
    tasks.push_back(world_.scheduler().spawn("talk", [=] { (conversation->*what)(); }));
  }
  for (const TaskId each : tasks) world_.scheduler().join(each);
}

// Steps of the wall clock, and somebody who runs the timers beside the worker.
void Simulation::disturb() {
  Scheduler& scheduler = world_.scheduler();
  while (disturbing_) {
    scheduler.sleep(kNsPerMs);
    if (next_step_ < plan_.steps.size() && scheduler.now() >= plan_.steps[next_step_].at_ns) {
      const int64_t ms = plan_.steps[next_step_++].ms;
      world_.event("wall clock {} {} ms", ms < 0 ? "back" : "forward", ms < 0 ? -ms : ms);
      world_.step_wall(ms);
    }
    if (random_.chance(plan_.update_share)) update();
  }
}

void Simulation::update() {
  const TaskId self = world_.scheduler().self();
  world_.set_runs_timers(self, true);
  world_.set_leave_share(plan_.leave_share);
  try {
    const InsideLibrary inside;
    tarn_update();
  } catch (const LeftCallback&) {
  }
  world_.set_leave_share(0);
  world_.set_runs_timers(self, false);
}

// A handle is released by a one-shot, and one that the wrap of the tick has passed by comes up when
// the tick has gone round once more.
void Simulation::check_heap(const char* when) {
  if (has_sockets_ && world_.tick_has_wrapped()) return;
  const HeapUse now = library_heap();
  if (now.blocks != empty_.blocks) {
    fail("{} blocks of {} bytes are left {}", now.blocks - empty_.blocks, now.bytes - empty_.bytes,
         when);
  }
}

void Simulation::check_descriptors() const {
  const size_t expected = has_sockets_ ? kLongLivedDescriptors : 0;
  const size_t open = world_.network().descriptors();
  if (open != expected) fail("{} descriptors are open instead of {}", open, expected);
}

void Simulation::check_expectations() const {
  const auto expect = [this](bool expected, TarnError code, const char* what) {
    if (expected && errors_[code] == 0) fail("no {} in a run that has to have one", what);
  };
  expect(plan_.expect_overflow, TARN_ERROR_SEND_OVERFLOW, "overflow");
  expect(plan_.expect_refusal, TARN_ERROR_RECV_REJECTED, "refused segment");
  expect(plan_.expect_silence, TARN_ERROR_INACTIVE, "silence");
}

}  // namespace tarn_sim
