#include "tests/sim/delivery.h"

namespace tarn_sim {
namespace {

constexpr size_t kMessage = 200;
constexpr size_t kBulkMessage = 1370;
constexpr uint64_t kStreamNs = 60 * kNsPerSecond;
constexpr uint64_t kPatience = 600 * kNsPerSecond;

}  // namespace

double measure_stream(World& world, const ControlledPair::Plan& plan, Random random,
                      unsigned int per_second) {
  Scheduler& scheduler = world.scheduler();
  ControlledPair pair(world, plan, random);
  const uint64_t begun = scheduler.now();
  const uint64_t end = begun + 2 * kStreamNs;
  const uint64_t count = uint64_t{per_second} * kStreamNs / kNsPerSecond;
  for (uint64_t i = 0; i < count; ++i) {
    const uint64_t due = begun + i * kNsPerSecond / per_second;
    if (due > scheduler.now()) scheduler.block(nullptr, due);
    if (!pair.send(kMessage, end)) break;
  }
  pair.wait_for_deliveries(count, end);
  return static_cast<double>(pair.delivered()) / static_cast<double>(count);
}

bool measure_message(World& world, const ControlledPair::Plan& plan, Random random, size_t size) {
  ControlledPair pair(world, plan, random);
  const uint64_t end = world.scheduler().now() + kPatience;
  pair.send(size, end);
  pair.wait_for_deliveries(1, end);
  return pair.delivered() == 1;
}

double measure_transfer(World& world, const ControlledPair::Plan& plan, Random random,
                        unsigned int messages) {
  Scheduler& scheduler = world.scheduler();
  ControlledPair pair(world, plan, random);
  const uint64_t begun = scheduler.now();
  for (unsigned int i = 0; i < messages; ++i) {
    if (!pair.send(kBulkMessage, begun + kPatience)) return 0;
  }
  pair.wait_for_deliveries(messages, begun + kPatience);
  if (pair.delivered() < messages) return 0;
  const double seconds = static_cast<double>(scheduler.now() - begun) * 1e-9;
  return 8.0 * kBulkMessage * messages / seconds * 1e-6;
}

}  // namespace tarn_sim
