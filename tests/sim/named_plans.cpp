// Plans with a name: one thing each, taken far.
#include <functional>
#include <map>

#include "tests/sim/failure.h"
#include "tests/sim/plan.h"

namespace tarn_sim {
namespace {

constexpr uint64_t kWallMs = (uint64_t{1} << 32) * 400 + 86'400'000;

uint64_t ms(uint64_t count) { return count * kNsPerMs; }

Script script(unsigned int messages, size_t largest, uint64_t gap_ns) {
  Script script;
  script.messages = messages;
  script.largest = largest;
  script.gap_ns = gap_ns;
  script.burst = 3;
  return script;
}

// Two ends, 20 ms apart, that talk both ways for some seconds.
Plan talk(const LinkSettings& link) {
  ConversationPlan conversation;
  conversation.name = "1";
  conversation.link_ab = link;
  conversation.link_ba = link;
  conversation.script_a = script(200, 5000, ms(60));
  conversation.script_b = script(200, 500, ms(60));
  Plan plan;
  plan.wall_ms = kWallMs;
  Round round;
  round.conversations.push_back(conversation);
  plan.rounds.push_back(round);
  return plan;
}

LinkSettings distance(uint64_t delay_ms) {
  LinkSettings link;
  link.delay_ns = ms(delay_ms);
  link.jitter_ns = ms(5);
  return link;
}

ConversationPlan& only(Plan& plan) { return plan.rounds[0].conversations[0]; }
Settings& settings(Plan& plan) { return plan.rounds[0].settings; }

Plan burst_loss() {
  // 2 % in bursts of 3 on average.
  LinkSettings link = distance(20);
  link.burst_begin = 0.02 / 0.98 / 3;
  link.burst_end = 1.0 / 3;
  return talk(link);
}

Plan heavy_loss() {
  LinkSettings link = distance(20);
  link.loss = 0.3;
  return talk(link);
}

Plan blackholes() {
  LinkSettings link = distance(20);
  link.up_ns = ms(2000);
  link.down_ns = ms(5000);
  Plan plan = talk(link);
  only(plan).script_a = script(600, 5000, ms(60));
  plan.expect_silence = false;
  return plan;
}

Plan long_delay() { return talk(distance(750)); }

Plan feedback_loss() {
  LinkSettings link = distance(20);
  link.feedback_loss = 1;
  Plan plan = talk(link);
  // What acknowledges has to ride along with data; the last of it comes after the links healed.
  only(plan).script_a.gap_ns = only(plan).script_b.gap_ns = ms(30);
  return plan;
}

Plan sequence_wrap() {
  LinkSettings link;
  link.delay_ns = ms(1);
  link.loss = 0.001;
  Plan plan = talk(link);
  settings(plan).send_window = settings(plan).recv_window = 4096;
  settings(plan).rtx_timeout = 5;
  only(plan).script_a = script(70'000, 4, ms(2));
  only(plan).script_a.burst = 400;
  only(plan).script_b = script(0, 1, 0);
  return plan;
}

Plan window(unsigned int size, unsigned int messages) {
  LinkSettings link = distance(2);
  link.loss = 0.05;
  Plan plan = talk(link);
  settings(plan).send_window = settings(plan).recv_window = size;
  only(plan).script_a = script(messages, 100, ms(1));
  only(plan).script_a.burst = size;
  return plan;
}

Plan mtu(unsigned int bytes) {
  LinkSettings link = distance(2);
  link.loss = 0.05;
  Plan plan = talk(link);
  settings(plan).mtu = bytes;
  settings(plan).send_window = settings(plan).recv_window = 1024;
  // Below 6 bytes nothing is ever acknowledged: not more than the window holds.
  const bool acknowledges = bytes >= 6;
  only(plan).script_a = script(100, acknowledges ? 200'000 : 40, ms(20));
  only(plan).script_b = script(acknowledges ? 50 : 20, 40, ms(20));
  if (!acknowledges) only(plan).script_a.messages = 20;
  return plan;
}

Plan overflow() {
  Plan plan = talk(distance(20));
  only(plan).script_a.bounded = false;
  only(plan).script_a.burst = 100;
  plan.expect_overflow = true;
  return plan;
}

Plan small_receive_window() {
  LinkSettings link = distance(20);
  link.loss = 0.1;
  Plan plan = talk(link);
  settings(plan).recv_window = 2;
  plan.expect_refusal = true;
  return plan;
}

Plan restarted_peer() {
  Plan plan = talk(distance(20));
  only(plan).restart_b = true;
  return plan;
}

Plan clock_steps() {
  LinkSettings link = distance(20);
  link.loss = 0.05;
  Plan plan = talk(link);
  plan.steps = {{ms(1000), 60'000}, {ms(2000), -3'000}, {ms(4000), -60'000}, {ms(65'000), 1}};
  return plan;
}

Plan tick_wrap() {
  LinkSettings link = distance(20);
  link.loss = 0.05;
  Plan plan = talk(link);
  plan.wall_ms = (uint64_t{1} << 32) * 400 - 2000;
  return plan;
}

Plan silence() {
  LinkSettings link = distance(20);
  link.loss = 1;
  Plan plan = talk(link);
  only(plan).script_b.messages = 0;
  only(plan).script_a = script(40, 100, ms(400));
  plan.expect_silence = true;
  return plan;
}

// Somebody runs the timers beside the worker, and the callbacks do not come back.
Plan left_updates() {
  Plan plan = talk(distance(20));
  plan.update_share = 0.5;
  plan.leave_share = 0.5;
  only(plan).link_ab.loss = only(plan).link_ba.loss = 0.2;
  ConversationPlan more = only(plan);
  for (const char* name : {"2", "3", "4"}) {
    more.name = name;
    plan.rounds[0].conversations.push_back(more);
  }
  return plan;
}

// Large messages through small windows, in part with a queue, sent by some tasks that go on when
// they are told to.
Plan controlled() {
  LinkSettings link = distance(5);
  link.loss = 0.1;
  link.duplicate = 0.1;
  Plan plan = talk(link);
  plan.preemption.switch_share = 0.5;
  plan.preemption.cost_ns = 100;
  plan.update_share = 0.1;
  only(plan).script_a.largest = 50'000;
  only(plan).script_a.gap_ns = 0;
  for (Script* each : {&only(plan).script_a, &only(plan).script_b}) {
    each->habits = {0.05, ms(10), 0.3, 200, 0};
    each->unreliable_share = 0.1;
    each->control.on = true;
    each->control.senders = 3;
    each->control.try_share = 0.8;
    each->control.callback_share = 0.5;
    each->control.options = {{TARN_OPTION_SEND_WINDOW, 16},
                             {TARN_OPTION_PEER_WINDOW, -1},
                             {TARN_OPTION_KEEP_ALIVE_MS, 100},
                             {TARN_OPTION_SEND_QUEUE, 100'000}};
  }
  ConversationPlan more = only(plan);
  more.name = "2";
  for (Script* each : {&more.script_a, &more.script_b}) each->control.options.pop_back();
  plan.rounds[0].conversations.push_back(more);
  return plan;
}

// A reader that does not read most of the time, and a sender that does not overrun it.
Plan slow_reader() {
  LinkSettings link = distance(20);
  link.loss = 0.02;
  Plan plan = talk(link);
  plan.preemption.switch_share = 0.2;
  plan.preemption.cost_ns = 100;
  only(plan).script_a.control.on = true;
  only(plan).script_a.control.profile = TARN_PROFILE_BALANCED;
  only(plan).script_a.control.try_share = 1;
  only(plan).script_a.control.callback_share = 1;
  only(plan).script_b.control.on = true;
  only(plan).script_b.control.pause_share = 0.3;
  only(plan).script_b.control.reader_ns = ms(2000);
  return plan;
}

// Sessions that are gone before the worker has heard of them.
Plan orphans() {
  Plan plan = talk(distance(20));
  only(plan).link_ab.loss = only(plan).link_ba.loss = 0.1;
  only(plan).script_a.habits.orphan_share = only(plan).script_b.habits.orphan_share = 0.1;
  return plan;
}

// Everything happens inside callbacks, and everybody is held up all the time.
Plan storm() {
  LinkSettings link = distance(5);
  link.loss = 0.1;
  link.duplicate = 0.1;
  Plan plan = talk(link);
  plan.preemption.switch_share = 0.5;
  plan.preemption.stall_share = 0.001;
  plan.preemption.longest_stall_ns = ms(20);
  plan.preemption.cost_ns = 100;
  plan.preemption.spurious_share = 0.02;
  plan.update_share = 0.3;
  plan.log_level = 5;
  for (Script* each : {&only(plan).script_a, &only(plan).script_b}) {
    each->habits = {0.05, ms(10), 0.3, 200, 0.001};
    each->unreliable_share = 0.3;
    each->meddle_share = 0.5;
  }
  ConversationPlan more = only(plan);
  for (const char* name : {"2", "3", "4"}) {
    more.name = name;
    plan.rounds[0].conversations.push_back(more);
  }
  plan.rounds.push_back(plan.rounds[0]);
  return plan;
}

// Conversations through the library's own sockets, in which things go wrong.
Plan through(Path path, unsigned int count) {
  LinkSettings link = distance(20);
  link.loss = 0.1;
  link.duplicate = 0.02;
  Plan plan = talk(link);
  plan.preemption.switch_share = 0.2;
  plan.preemption.cost_ns = 100;
  plan.preemption.spurious_share = 0.01;
  only(plan).path = path;
  only(plan).wait_ms = 100;
  for (Script* each : {&only(plan).script_a, &only(plan).script_b}) {
    each->habits = {0, 0, 0.1, 100, 0};
    each->unreliable_share = 0.2;
    each->meddle_share = 0.1;
  }
  for (unsigned int i = 1; i < count; ++i) {
    ConversationPlan more = only(plan);
    more.name = std::to_string(i + 1);
    plan.rounds[0].conversations.push_back(more);
  }
  plan.rounds.push_back(plan.rounds[0]);
  return plan;
}

// The sockets go while their sessions send on all threads.
Plan cut_off() {
  Plan plan = through(Path::kSockets, 4);
  plan.preemption.switch_share = 0.5;
  for (Round& round : plan.rounds) {
    for (ConversationPlan& each : round.conversations) each.cut_off_a = true;
  }
  return plan;
}

// TCP beside a conversation through sockets.
Plan streams() {
  Plan plan = through(Path::kSockets, 1);
  for (Round& round : plan.rounds) round.tcp_talks = 3;
  return plan;
}

using Maker = std::function<Plan()>;

const std::map<std::string, Maker>& makers() {
  static const std::map<std::string, Maker> all = {
      {"blackholes", blackholes},
      {"burst_loss", burst_loss},
      {"clock_steps", clock_steps},
      {"controlled", controlled},
      {"cut_off", cut_off},
      {"feedback_loss", feedback_loss},
      {"heavy_loss", heavy_loss},
      {"left_updates", left_updates},
      {"listener", [] { return through(Path::kListener, 5); }},
      {"long_delay", long_delay},
      {"mtu_1", [] { return mtu(1); }},
      {"mtu_1400", [] { return mtu(1400); }},
      {"mtu_5", [] { return mtu(5); }},
      {"mtu_65530", [] { return mtu(65530); }},
      {"orphans", orphans},
      {"overflow", overflow},
      {"restarted_peer", restarted_peer},
      {"sequence_wrap", sequence_wrap},
      {"silence", silence},
      {"slow_reader", slow_reader},
      {"small_receive_window", small_receive_window},
      {"sockets", [] { return through(Path::kSockets, 2); }},
      {"storm", storm},
      {"streams", streams},
      {"tick_wrap", tick_wrap},
      {"window_1", [] { return window(1, 300); }},
      {"window_1024", [] { return window(1024, 5000); }},
      {"window_32", [] { return window(32, 1000); }},
      {"window_32767", [] { return window(32767, 40'000); }},
  };
  return all;
}

}  // namespace

std::vector<std::string> named_plans() {
  std::vector<std::string> names;
  for (const auto& each : makers()) names.push_back(each.first);
  return names;
}

Plan named_plan(const std::string& name, uint64_t seed) {
  Plan plan = makers().at(name)();
  plan.name = name;
  plan.seed = seed;
  return plan;
}

}  // namespace tarn_sim
