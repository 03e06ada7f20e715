// What the scenarios share: how they wait, and the list of them.
#ifndef TARN_TESTS_FAULTS_PLAY_H_
#define TARN_TESTS_FAULTS_PLAY_H_

#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace tarn_test {

// One performance of a scenario. Where something is wrong on the way that must not be, it is a
// failure of the running test.
class Play {
 public:
  // A fault that spoils what the scenario wants is one thing, a fault that the library has to get
  // over is another: `must_complete` tells them apart.
  explicit Play(bool must_complete, bool lasts = false)
      : must_complete_(must_complete), lasts_(lasts) {}

  // Waits until `done`. Where the scenario may be spoilt it is given a moment and then goes on.
  bool reach(const std::string& what, const std::function<bool()>& done) const;
  bool must_complete() const { return must_complete_; }
  // The fault lasts: what it takes does not come back before the scenario is over.
  bool lasts() const { return lasts_; }

 private:
  const bool must_complete_;
  const bool lasts_;
};

struct Scenario {
  const char* name;
  // Begins with tarn_init() and leaves nothing of its own open.
  void (*run)(const Play& play);
};

inline void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.name; }
inline std::string name_of_parameter(const ::testing::TestParamInfo<Scenario>& test) {
  return test.param.name;
}

const std::vector<Scenario>& session_scenarios();
const std::vector<Scenario>& udp_scenarios();
const std::vector<Scenario>& listener_scenarios();
const std::vector<Scenario>& stream_scenarios();
const std::vector<Scenario>& log_lock_scenarios();
std::vector<Scenario> all_scenarios();

}  // namespace tarn_test

#endif  // TARN_TESTS_FAULTS_PLAY_H_
