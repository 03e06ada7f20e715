// What surrounds every call of an endpoint on its session, and every callback from there.
#ifndef TARN_TESTS_SIM_ENDPOINT_CALLS_H_
#define TARN_TESTS_SIM_ENDPOINT_CALLS_H_

#include <set>

#include "tests/sim/boundary.h"
#include "tests/sim/endpoint.h"
#include "tests/sim/failure.h"

namespace tarn_sim {

// Around every callback. The library may hold one lock while it calls out, and only where timers
// run: that of the timer.
class Endpoint::Callback {
 public:
  Callback(Endpoint& endpoint, const char* what) {
    World& world = endpoint.world_;
    const unsigned int allowed = world.runs_timers() ? 1 : 0;
    if (world.locks().held_count() > allowed) {
      fail("{}: a lock is held across the {} callback", endpoint.name(), what);
    }
    // Whoever was inside before the deletion may have taken the callback along.
    if (!is_registered(endpoint.handle_) && !endpoint.is_inside(world.scheduler().self())) {
      fail("{}: {} callback after the session was deleted", endpoint.name(), what);
    }
    world.scheduler().point();
    endpoint.observe();
  }
  Callback(const Callback&) = delete;
  Callback& operator=(const Callback&) = delete;

 private:
  const OutsideLibrary outside_;
};

// Around every call on the session that may lead to callbacks.
class Endpoint::Call {
 public:
  explicit Call(Endpoint& endpoint)
      : callers_(endpoint.callers_), entry_(callers_.insert(endpoint.world_.scheduler().self())) {}
  ~Call() { callers_.erase(entry_); }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

 private:
  std::multiset<TaskId>& callers_;
  const std::multiset<TaskId>::iterator entry_;
  const InsideLibrary inside_;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_ENDPOINT_CALLS_H_
