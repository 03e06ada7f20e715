#include "tests/sim/world.h"

#include <algorithm>
#include <utility>

#include "tests/sim/boundary.h"
#include "tests/sim/failure.h"

namespace tarn_sim {
namespace {

// The worker's.
constexpr uint64_t kLongestSleep = 10 * kNsPerSecond;

uint64_t wraps_until(uint64_t wall_us) { return wall_us / 1000 >> 32; }

}  // namespace

World* World::current_ = nullptr;

World::World(Random random, Preemption preemption, uint64_t wall_ms, bool printing)
    : scheduler_(random, preemption),
      locks_(scheduler_),
      network_(scheduler_, random.fork()),
      trace_(printing),
      wall_offset_us_(static_cast<int64_t>(wall_ms * 1000)),
      first_wall_us_(wall_us()) {
  current_ = this;
}

World::~World() { current_ = nullptr; }

void World::set_runs_timers(TaskId task, bool runs) {
  if (runs) {
    timer_tasks_.insert(task);
  } else {
    timer_tasks_.erase(task);
  }
}

void World::step_wall(int64_t ms) {
  furthest_wall_us_ = std::max(furthest_wall_us_, wall_us());
  wall_offset_us_ += ms * 1000;
}

uint64_t World::timer_lag_ns() const {
  if (furthest_wall_us_ == 0) return 0;
  const uint64_t now = wall_us();
  return kLongestSleep + (furthest_wall_us_ > now ? (furthest_wall_us_ - now) * kNsPerUs : 0);
}

bool World::tick_has_wrapped() const {
  return wraps_until(std::max(furthest_wall_us_, wall_us())) != wraps_until(first_wall_us_);
}

void fail_with(const std::string& what) {
  World& world = World::get();
  fmt::print(stderr, "broken at {:.6f} s in {}: {}\n",
             static_cast<double>(world.scheduler().now()) * 1e-9, world.scheduler().own_name(),
             what);
  fflush(stdout);
  end_process(1);
}

}  // namespace tarn_sim
