#include "tests/sim/controlled_pair.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "tarn/tarn.h"
#include "tests/sim/boundary.h"
#include "tests/sim/failure.h"

namespace tarn_sim {

ControlledPair::ControlledPair(World& world, const Plan& plan, Random random)
    : world_(world),
      plan_(plan),
      link_ab_(random.fork(), plan.link_ab),
      link_ba_(random.fork(), plan.link_ba) {
  Scheduler& scheduler = world_.scheduler();
  apply(plan_.settings);
  a_ = open(plan_.a, link_ab_);
  // The timers of the two ends fall together in any way.
  constexpr uint64_t kAllPhases = 600 * kNsPerMs;
  scheduler.sleep(random.between(0, kAllPhases));
  b_ = open(plan_.b, link_ba_);
  {
    const InsideLibrary inside;
    tarn_set_recv_reliable_callback(b_, &ControlledPair::on_message, this);
    if (!plan_.is_plain()) tarn_set_writable_callback(a_, &ControlledPair::on_writable, this);
  }
  receiver_a_ = scheduler.spawn("net>a", [this] { receive(a_, link_ba_); });
  receiver_b_ = scheduler.spawn("net>b", [this] { receive(b_, link_ab_); });
  scheduler.sleep(random.between(0, kAllPhases));
}

ControlledPair::~ControlledPair() {
  Scheduler& scheduler = world_.scheduler();
  {
    const InsideLibrary inside;
    tarn_destroy(a_);
    tarn_destroy(b_);
  }
  receiving_ = false;
  for (const Link* const link : {&link_ab_, &link_ba_}) scheduler.wake(link);
  for (const TaskId each : {receiver_a_, receiver_b_}) scheduler.join(each);
}

void* ControlledPair::open(const Side& side, Link& outbound) {
  const InsideLibrary inside;
  void* const session = tarn_create();
  tarn_set_output_callback(session, &ControlledPair::on_output, &outbound);
  if (side.profile != TARN_PROFILE_PLAIN) tarn_set_profile(session, side.profile);
  for (const auto& each : side.options) {
    const int result = tarn_set_option(session, each.first, each.second);
    if (result != 0) fail("option {} cannot be {}", static_cast<int>(each.first), each.second);
  }
  return session;
}

void ControlledPair::receive(void* session, Link& inbound) {
  Scheduler& scheduler = world_.scheduler();
  while (receiving_) {
    if (auto datagram = inbound.receive(scheduler.now())) {
      const InsideLibrary inside;
      tarn_input(session, datagram->data(), static_cast<int>(datagram->size()));
    } else {
      scheduler.block(&inbound, inbound.next_due());
    }
  }
}

bool ControlledPair::send(size_t size, uint64_t deadline) {
  while (try_send(size) != 0) {
    if (world_.scheduler().now() >= deadline) return false;
    world_.scheduler().block(this, deadline);
  }
  ++sent_;
  return true;
}

int ControlledPair::try_send(size_t size) {
  std::string message(size, 'x');
  memcpy(message.data(), &sent_, sizeof sent_);
  const InsideLibrary inside;
  if (!plan_.is_plain()) return tarn_try_send_reliable(a_, message.data(), message.size());
  tarn_send_reliable(a_, message.data(), static_cast<int>(size));
  return 0;
}

void ControlledPair::wait_for_deliveries(uint64_t count, uint64_t deadline) {
  Scheduler& scheduler = world_.scheduler();
  while (delivered_ < count && scheduler.now() < deadline) scheduler.block(this, deadline);
}

void ControlledPair::got(const char* data) {
  uint64_t number = 0;
  memcpy(&number, data, sizeof number);
  if (number != delivered_) fail("message {} came in place of {}", number, delivered_);
  ++delivered_;
  world_.scheduler().wake(this);
}

int ControlledPair::on_output(char* data, int len, void* link) {
  const OutsideLibrary outside;
  auto& outbound = *static_cast<Link*>(link);
  Scheduler& scheduler = World::get().scheduler();
  outbound.send(scheduler.now(), {data, static_cast<size_t>(len)}, false);
  scheduler.wake(link);
  return 0;
}

int ControlledPair::on_message(char* data, int, void* pair) {
  const OutsideLibrary outside;
  static_cast<ControlledPair*>(pair)->got(data);
  return 0;
}

void ControlledPair::on_writable(void*, void* pair) {
  const OutsideLibrary outside;
  World::get().scheduler().wake(static_cast<ControlledPair*>(pair));
}

}  // namespace tarn_sim
