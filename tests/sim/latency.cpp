#include "tests/sim/latency.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "tests/sim/pair.h"

namespace tarn_sim {
namespace {

constexpr size_t kPayload = 200;
constexpr uint64_t kGap = 20 * kNsPerMs;
constexpr size_t kUdpIpHeader = 28;
// The gap and the 30 ms of the re-send timer meet in the same three ways until something pauses,
// and what a lost message costs depends on which ones. So there is a pause after so many messages,
constexpr size_t kStretch = 500;
// and there are new sessions after so many stretches.
constexpr size_t kStretches = 50;

// The messages of all conversations, in order.
struct Ledger {
  std::vector<uint64_t> sent_at;
  std::vector<uint64_t> took;  // nanoseconds; of those that have arrived

  void delivered(uint64_t now) { took.push_back(now - sent_at[took.size()]); }
};

void send_stretch(World& world, Pair& pair, Ledger& ledger) {
  Scheduler& scheduler = world.scheduler();
  uint64_t due = scheduler.now();
  for (size_t i = 0; i < kStretch; ++i, due += kGap) {
    if (due > scheduler.now()) scheduler.block(nullptr, due);
    pair.wait_for_room();
    ledger.sent_at.push_back(scheduler.now());
    pair.send(kPayload);
  }
  pair.drain();
}

// The value that `share` of all are below.
double quantile_ms(std::vector<uint64_t>& values, double share) {
  const auto at =
      values.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size()));
  std::nth_element(values.begin(), at, values.end());
  return static_cast<double>(*at) / kNsPerMs;
}

}  // namespace

Latency measure_latency(World& world, Random random, double loss, size_t messages) {
  Pair::Plan plan;
  plan.link_ab.loss = plan.link_ba.loss = loss;
  Ledger ledger;
  uint64_t wire_bytes = 0;
  while (ledger.took.size() < messages) {
    Pair pair(world, plan, random.fork(), [&] { ledger.delivered(world.scheduler().now()); });
    for (size_t i = 0; i < kStretches; ++i) {
      send_stretch(world, pair, ledger);
      pair.change_phase();
    }
    wire_bytes += pair.bytes() + kUdpIpHeader * pair.datagrams();
  }
  Latency latency;
  latency.p50_ms = quantile_ms(ledger.took, 0.5);
  latency.p99_ms = quantile_ms(ledger.took, 0.99);
  latency.wire_bytes_per_payload_byte =
      static_cast<double>(wire_bytes) / static_cast<double>(kPayload * ledger.took.size());
  return latency;
}

}  // namespace tarn_sim
