#include "tests/sim/bulk.h"

#include <cstddef>
#include <cstdint>

namespace tarn_sim {
namespace {

constexpr size_t kPayload = 1370;
constexpr unsigned int kMessages = 5000;

uint64_t time_transfer(World& world, const Pair::Plan& plan, Random random) {
  Scheduler& scheduler = world.scheduler();
  uint64_t last_delivery = 0;
  Pair pair(world, plan, random, [&] { last_delivery = scheduler.now(); });
  const uint64_t begun = scheduler.now();
  for (unsigned int i = 0; i < kMessages; ++i) {
    pair.wait_for_room();
    pair.send(kPayload);
  }
  pair.drain();
  return last_delivery - begun;
}

}  // namespace

double measure_bulk(World& world, Random random, const Pair::Plan& plan, unsigned int transfers) {
  uint64_t ns = 0;
  for (unsigned int i = 0; i < transfers; ++i) ns += time_transfer(world, plan, random.fork());
  const double bits = 8.0 * kPayload * kMessages * transfers;
  return bits / (static_cast<double>(ns) * 1e-9) * 1e-6;
}

}  // namespace tarn_sim
