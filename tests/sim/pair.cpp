#include "tests/sim/pair.h"

#include <utility>

namespace tarn_sim {
namespace {

// A multiple of all periods: 120 ms of re-sends, 50 ms of acknowledgements, 20 ms of messages.
constexpr uint64_t kAllPhases = 600 * kNsPerMs;

Stream::Rules rules(const Settings& settings) {
  Stream::Rules rules;
  rules.largest_payload = settings.mtu;
  rules.exact_timing = true;
  return rules;
}

}  // namespace

LinkSettings measured_way() {
  LinkSettings link;
  link.delay_ns = 20 * kNsPerMs;
  link.jitter_ns = 5 * kNsPerMs;
  link.in_order = true;
  return link;
}

Pair::Pair(World& world, const Plan& plan, Random random, std::function<void()> delivered)
    : world_(world),
      settings_(plan.settings),
      delivered_(std::move(delivered)),
      random_(random),
      link_ab_(random_.fork(), plan.link_ab),
      link_ba_(random_.fork(), plan.link_ba),
      stream_ab_(world, "a->b", rules(plan.settings)),
      stream_ba_(world, "b->a", rules(plan.settings)),
      a_(world, {"a", plan.settings, {}, {}}, random_.fork(), stream_ab_, stream_ba_, link_ab_),
      b_(world, {"b", plan.settings, {}, {}}, random_.fork(), stream_ba_, stream_ab_, link_ba_) {
  Scheduler& scheduler = world_.scheduler();
  apply(settings_);
  a_.open(0);
  change_phase();
  b_.open(0);
  receiver_a_ = scheduler.spawn("net>a", [this] { receive(a_, link_ba_); });
  receiver_b_ = scheduler.spawn("net>b", [this] { receive(b_, link_ab_); });
  change_phase();
}

Pair::~Pair() {
  Scheduler& scheduler = world_.scheduler();
  a_.destroy(0);
  b_.destroy(0);
  receiving_ = false;
  for (const Link* const link : {&link_ab_, &link_ba_}) scheduler.wake(link);
  for (const TaskId each : {receiver_a_, receiver_b_}) scheduler.join(each);
  while (!a_.is_deleted() || !b_.is_deleted()) scheduler.sleep(kNsPerMs);
}

void Pair::wait_for_room() { wait_until_kept(settings_.send_window - 1); }

void Pair::drain() { wait_until_kept(0); }

void Pair::change_phase() { world_.scheduler().sleep(random_.between(0, kAllPhases)); }

void Pair::wait_until_kept(unsigned int packets) {
  while (a_.kept() > packets) world_.scheduler().block(this, kNever);
}

// Gives an end what arrives for it, when it arrives.
void Pair::receive(Endpoint& endpoint, Link& inbound) {
  Scheduler& scheduler = world_.scheduler();
  while (receiving_) {
    if (auto datagram = inbound.receive(scheduler.now())) {
      endpoint.feed(std::move(*datagram));
      tell_deliveries();
      scheduler.wake(this);
    } else {
      scheduler.block(&inbound, inbound.next_due());
    }
  }
}

void Pair::tell_deliveries() {
  for (; told_ < stream_ab_.messages_delivered(); ++told_) delivered_();
}

}  // namespace tarn_sim
