// Runner: simulations in processes of their own.
#ifndef TARN_TESTS_SIM_RUNNER_H_
#define TARN_TESTS_SIM_RUNNER_H_

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "tests/sim/plan.h"
#include "tests/sim/simulation.h"

namespace tarn_sim {

// Starts each run in a child process and collects what comes of it. Whatever ends a child other
// than the end of its run, a broken rule, a crash, an assertion or a hang, is a failed run, and is
// reported with the seed and the command that replays it.
class Runner {
 public:
  // At most `jobs` at a time.
  explicit Runner(unsigned int jobs) : jobs_(jobs) {}

  // Waits for a free place first. Ignored once a run has failed.
  void start(Plan plan, bool printing);
  // Waits for all runs.
  void finish();

  unsigned int failed() const { return failed_; }
  unsigned int done() const { return done_; }
  // Sums over all runs, but for the hash: that mixes the hashes of all runs, in whatever order they
  // end.
  const Outcome& total() const { return total_; }

 private:
  struct Child {
    std::string replay;
    int outcome_pipe;
  };
  [[noreturn]] static void run_child(const Plan& plan, bool printing, int outcome_pipe);
  void collect();

  const unsigned int jobs_;
  std::map<int, Child> children_;  // by process id
  unsigned int failed_ = 0;
  unsigned int done_ = 0;
  Outcome total_;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_RUNNER_H_
