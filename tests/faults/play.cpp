#include "tests/faults/play.h"

#include <gtest/gtest.h>

#include "tests/faults/waiting.h"

namespace tarn_test {
namespace {

constexpr int kCertainlyMs = 15000;
constexpr int kMomentMs = 150;

}  // namespace

bool Play::reach(const std::string& what, const std::function<bool()>& done) const {
  const bool reached = wait_for_condition(done, must_complete_ ? kCertainlyMs : kMomentMs);
  EXPECT_TRUE(reached || !must_complete_) << "did not come: " << what;
  return reached;
}

std::vector<Scenario> all_scenarios() {
  std::vector<Scenario> all;
  for (const auto* each : {&session_scenarios(), &udp_scenarios(), &listener_scenarios(),
                           &stream_scenarios(), &log_lock_scenarios()}) {
    all.insert(all.end(), each->begin(), each->end());
  }
  return all;
}

}  // namespace tarn_test
