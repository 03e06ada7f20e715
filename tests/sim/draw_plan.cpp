// Plans drawn from a seed.
#include <algorithm>

#include "tests/sim/plan.h"

namespace tarn_sim {
namespace {

constexpr uint64_t kHourMs = 3'600'000;
// The tick has 32 bits; this one is divisible by it and in our time.
constexpr uint64_t kTickWrapMs = (uint64_t{1} << 32) * 400;

// Most things are absent from most runs: a fault shows better when it is alone.
double sometimes(Random& random, double share_of_runs, double most) {
  return random.chance(share_of_runs) ? random.share() * most : 0;
}

uint64_t ms(uint64_t count) { return count * kNsPerMs; }

Preemption draw_preemption(Random& random) {
  Preemption preemption;
  if (random.chance(0.2)) return preemption;
  preemption.switch_share = random.pick({0.01, 0.1, 0.3, 0.8});
  preemption.cost_ns = random.between(0, 500);
  preemption.spurious_share = sometimes(random, 0.5, 0.05);
  if (random.chance(0.4)) {
    preemption.stall_share = random.pick({0.0001, 0.001});
    preemption.longest_stall_ns = ms(random.between(1, 30));
  }
  return preemption;
}

LinkSettings draw_link(Random& random, bool corrupt) {
  LinkSettings link;
  link.delay_ns = random.between(0, ms(random.pick({1, 20, 150})));
  link.jitter_ns = random.chance(0.6) ? random.between(0, ms(random.pick({1, 10, 80}))) : 0;
  link.loss = sometimes(random, 0.6, 0.4);
  if (random.chance(0.3)) {
    link.burst_begin = random.share() * 0.05;
    link.burst_end = 0.1 + random.share() * 0.9;
  }
  link.duplicate = sometimes(random, 0.4, 0.3);
  link.reorder = sometimes(random, 0.4, 0.3);
  link.reorder_ns = ms(random.between(1, 200));
  link.truncate = sometimes(random, 0.2, 0.1);
  link.bad_header = sometimes(random, 0.2, 0.1);
  link.feedback_loss = sometimes(random, 0.1, 0.9);
  if (corrupt) link.corrupt = 0.01 + random.share() * 0.1;
  if (random.chance(0.3)) link.rate_bps = random.between(200'000, 20'000'000);
  if (random.chance(0.15)) {
    link.up_ns = ms(random.between(100, 2000));
    link.down_ns = ms(random.between(50, 2000));
  }
  return link;
}

Habits draw_habits(Random& random) {
  Habits habits;
  habits.slow_share = sometimes(random, 0.2, 0.05);
  habits.slow_ns = habits.slow_share > 0 ? ms(random.between(1, 20)) : 0;
  habits.reply_share = sometimes(random, 0.4, 0.2);
  habits.replies = static_cast<unsigned int>(random.between(0, 40));
  habits.destroy_share = random.chance(0.15) ? 0.02 : 0;
  habits.orphan_share = sometimes(random, 0.1, 0.02);
  return habits;
}

// Where turns take their time, a worker that re-sends thousands of packets never catches up.
unsigned int largest_window(const Preemption& preemption) {
  if (preemption.stall_share > 0) return 32;
  return preemption.cost_ns > 30 ? 100 : 32767;
}

Settings draw_settings(Random& random, unsigned int largest_window) {
  Settings settings;
  if (random.chance(0.5))
    settings.mtu = random.pick({1U, 5U, 6U, 7U, 8U, 9U, 20U, 100U, 576U, 9000U, 65530U});
  if (random.chance(0.3)) settings.rtx_timeout = random.pick({0U, 1U, 10U, 30U, 120U, 500U});
  if (random.chance(0.3)) settings.active_timeout = random.pick({100U, 1000U, 60000U});
  if (random.chance(0.5)) {
    settings.send_window = settings.recv_window = random.pick({1U, 2U, 8U, 100U, 1024U, 32767U});
    if (random.chance(0.3)) settings.recv_window = random.pick({1U, 4U, 32U});
    // A rotation brings one segment at least: with a receive window so much smaller, no more.
    if (settings.recv_window < settings.send_window) {
      settings.send_window = std::min(settings.send_window, 40U);
    }
  }
  settings.send_window = std::min(settings.send_window, largest_window);
  settings.thread_safe = random.chance(0.8);
  return settings;
}

Script draw_script(Random& random, const Settings& settings) {
  Script script;
  script.messages = static_cast<unsigned int>(random.between(0, 60));
  script.bounded = random.chance(0.85);
  const uint64_t most = random.pick({40UL, 400UL, 3000UL, 20'000UL, 200'000UL});
  // A message of more segments than the window holds would overflow it all by itself.
  const uint64_t room = static_cast<uint64_t>(settings.mtu) * std::min(settings.send_window, 200U);
  script.largest = std::max<uint64_t>(1, std::min(most, script.bounded ? room : 3 * room));
  script.tiny_share = random.share();
  script.gap_ns = ms(random.pick({0, 1, 10, 60, 300}));
  script.burst = static_cast<unsigned int>(random.pick({1, 1, 3, 20}));
  script.unreliable_share = sometimes(random, 0.5, 1);
  script.meddle_share = sometimes(random, 0.5, 0.3);
  script.habits = draw_habits(random);
  return script;
}

// An attached session reads no more than 1500 bytes of a datagram.
Path draw_path(Random& random, const Settings& settings, bool restart_b) {
  if (!random.chance(0.2) || settings.mtu > 1400) return Path::kCallbacks;
  return restart_b || random.chance(0.7) ? Path::kSockets : Path::kListener;
}

ConversationPlan draw_conversation(Random& random, const Settings& settings, size_t index) {
  ConversationPlan plan;
  plan.name = std::to_string(index + 1);
  const bool corrupt = random.chance(0.08);
  plan.link_ab = draw_link(random, corrupt);
  plan.link_ba = random.chance(0.5) ? plan.link_ab : draw_link(random, corrupt);
  plan.script_a = draw_script(random, settings);
  plan.script_b = draw_script(random, settings);
  plan.conv_a = random.pick({0U, 0U, 1U, 0x12345678U});
  plan.conv_b = random.pick({0U, plan.conv_a, 9U});
  plan.wait_ms = random.pick({0U, 0U, 1U, 50U, 100U, 250U, 1000U});
  plan.stranger_share = sometimes(random, 0.15, 1);
  plan.restart_b = random.chance(0.04);
  plan.path = draw_path(random, settings, plan.restart_b);
  plan.cut_off_a = plan.path != Path::kCallbacks && random.chance(0.15);
  return plan;
}

std::vector<OptionSetting> draw_options(Random& random, const Settings& settings, bool again) {
  std::vector<OptionSetting> options;
  const auto draw = [&](TarnOption option, double share, std::initializer_list<long long> values) {
    if (random.chance(share)) options.push_back({option, random.pick(values)});
  };
  if (!again) draw(TARN_OPTION_MTU, 0.2, {20, 100, 576, 1400});
  draw(TARN_OPTION_ACTIVE_TIMEOUT_MS, 0.2, {100, 5000, UINT32_MAX});
  draw(TARN_OPTION_SEND_WINDOW, 0.5, {1, 2, 8, 32, 100, 1024});
  draw(TARN_OPTION_RECV_WINDOW, 0.4, {1, 4, 32, 256});
  draw(TARN_OPTION_SEND_QUEUE, 0.7, {0, 1, 100, 5000, 100'000, 10'000'000});
  draw(TARN_OPTION_PEER_WINDOW, 0.6, {-1, 0, 1, 8, 31});
  draw(TARN_OPTION_MAX_MESSAGE, 0.3, {0, 1LL << 30, 1LL << 40});
  draw(TARN_OPTION_KEEP_ALIVE_MS, 0.3, {0, 20, 100, 1000});
  draw(TARN_OPTION_PEER_TIMEOUT_MS, 0.3, {0, 50, 500, 5000});
  constexpr long long kUsual = 32;
  for (OptionSetting& each : options) {
    if (each.option == TARN_OPTION_SEND_WINDOW) {
      each.value =
          std::min<long long>(each.value, std::max<long long>(settings.send_window, kUsual));
    }
    if (each.option == TARN_OPTION_RECV_WINDOW && settings.send_window > kUsual) {
      each.value = std::max(each.value, kUsual);
    }
  }
  return options;
}

ControlPlan draw_control(Random& random, const Settings& settings) {
  ControlPlan control;
  control.on = true;
  control.late = random.chance(0.15);
  if (random.chance(0.25)) {
    control.profile =
        random.pick({TARN_PROFILE_BALANCED, TARN_PROFILE_REALTIME, TARN_PROFILE_BULK});
  }
  if (random.chance(0.9)) control.options = draw_options(random, settings, control.late);
  if (random.chance(0.3)) control.changes = draw_options(random, settings, true);
  control.senders = static_cast<unsigned int>(random.between(1, 3));
  control.try_share = random.pick({0.0, 0.5, 1.0});
  control.callback_share = random.pick({0.0, 0.5, 1.0});
  control.pause_share = sometimes(random, 0.4, 0.2);
  control.reader_ns = random.chance(0.5) ? ms(random.between(20, 500)) : 0;
  return control;
}

// A rotation brings as many segments as the receive window holds, at least: with one that is so
// much smaller than what is sent, too few.
void keep_windows_close(const Settings& settings, ControlPlan& sender,
                        const ControlPlan& receiver) {
  constexpr unsigned int kSmall = 32;
  if (ControlLimits(settings, receiver).least_early >= kSmall) return;
  sender.profile = TARN_PROFILE_PLAIN;
  for (std::vector<OptionSetting>* const each : {&sender.options, &sender.changes}) {
    for (OptionSetting& setting : *each) {
      if (setting.option == TARN_OPTION_SEND_WINDOW) {
        setting.value = std::min<long long>(setting.value, kSmall);
      }
    }
  }
}

// Half of the conversations, from a generator of their own: the rest is drawn as without.
void add_control(Random random, const Settings& settings, ConversationPlan& plan) {
  if (!settings.acknowledges() || !random.chance(0.5)) return;
  for (Script* const each : {&plan.script_a, &plan.script_b}) {
    if (random.chance(0.75)) each->control = draw_control(random, settings);
  }
  ControlPlan& a = plan.script_a.control;
  ControlPlan& b = plan.script_b.control;
  keep_windows_close(settings, a, b);
  keep_windows_close(settings, b, a);
  const bool takes_over = plan.conv_a == 0 || plan.conv_a == plan.conv_b;
  if (takes_over && random.chance(0.3) && !a.late) {
    a.options.push_back({TARN_OPTION_STRICT_CONV, 1});
  }
  if (plan.conv_a == plan.conv_b && random.chance(0.3) && !b.late) {
    b.options.push_back({TARN_OPTION_STRICT_CONV, 1});
  }
  if (random.chance(0.03)) b.options.push_back({TARN_OPTION_MAX_MESSAGE, 300});
}

// A session made halfway may get the address of one that was destroyed while a thread was about to
// call it, which applications must not do: then none is destroyed before the end.
void keep_addresses_apart(Round& round) {
  bool restarts = false;
  for (const ConversationPlan& each : round.conversations) restarts = restarts || each.restart_b;
  if (!restarts) return;
  for (ConversationPlan& each : round.conversations) {
    each.script_a.habits.destroy_share = each.script_b.habits.destroy_share = 0;
  }
}

std::vector<ClockStep> draw_steps(Random& random) {
  std::vector<ClockStep> steps;
  if (!random.chance(0.15)) return steps;
  uint64_t at = 0;
  for (uint64_t i = random.between(1, 4); i > 0; --i) {
    at += random.between(ms(100), ms(3000));
    const auto size = static_cast<int64_t>(random.between(1, random.pick({5, 500, 20'000})));
    steps.push_back({at, random.chance(0.5) ? size : -size});
  }
  return steps;
}

// Not before the wrap's own multiple: the wall clock has a date of our time.
uint64_t draw_wall(Random& random) {
  if (random.chance(0.2)) return kTickWrapMs - random.between(1, 5000);
  return kTickWrapMs + random.between(1, 1000 * kHourMs);
}

}  // namespace

Plan draw_plan(uint64_t seed) {
  Random random(seed);
  Random control_random(~seed);
  Plan plan;
  plan.name = "drawn";
  plan.seed = seed;
  plan.preemption = draw_preemption(random);
  plan.wall_ms = draw_wall(random);
  plan.steps = draw_steps(random);
  plan.update_share = sometimes(random, 0.2, 0.3);
  if (plan.update_share > 0) plan.leave_share = sometimes(random, 0.5, 0.3);
  plan.log_level = random.pick({0, 0, 0, 2, 5});
  for (uint64_t i = random.between(1, 2); i > 0; --i) {
    Round round;
    round.settings = draw_settings(random, largest_window(plan.preemption));
    const uint64_t count = random.pick({1, 1, 2, 4});
    for (size_t index = 0; index < count; ++index) {
      round.conversations.push_back(draw_conversation(random, round.settings, index));
      add_control(control_random.fork(), round.settings, round.conversations.back());
    }
    if (random.chance(0.08)) round.tcp_talks = static_cast<unsigned int>(random.between(1, 2));
    keep_addresses_apart(round);
    plan.rounds.push_back(std::move(round));
  }
  return plan;
}

bool has_sockets(const Plan& plan) {
  for (const Round& round : plan.rounds) {
    if (round.tcp_talks > 0) return true;
    for (const ConversationPlan& each : round.conversations) {
      if (each.path != Path::kCallbacks) return true;
    }
  }
  return false;
}

bool has_exact_timing(const Plan& plan, const ConversationPlan& conversation) {
  const Preemption& preemption = plan.preemption;
  const bool calm = preemption.switch_share == 0 && preemption.stall_share == 0 &&
                    preemption.cost_ns == 0 && plan.steps.empty();
  for (const Round& round : plan.rounds) {
    for (const ConversationPlan& each : round.conversations) {
      // The worker is one for all.
      if (each.script_a.habits.slow_share > 0 || each.script_b.habits.slow_share > 0) return false;
    }
  }
  return calm && conversation.link_ab.corrupt == 0 && conversation.link_ba.corrupt == 0 &&
         !conversation.restart_b;
}

}  // namespace tarn_sim
