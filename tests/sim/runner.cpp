#include "tests/sim/runner.h"

#include <fmt/format.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "tests/sim/boundary.h"

namespace tarn_sim {
namespace {

// Of real time; a run takes a fraction of a second, more under a sanitizer.
constexpr unsigned int kHangSeconds = 300;

std::string replay_of(const Plan& plan) {
  if (plan.name == "drawn") return fmt::format("scripts/sim --seed {} --trace", plan.seed);
  return fmt::format("scripts/sim --plan {} --seed {} --trace", plan.name, plan.seed);
}

std::string describe(int status) {
  if (WIFEXITED(status)) return fmt::format("exit code {}", WEXITSTATUS(status));
  if (WTERMSIG(status) == SIGALRM) return fmt::format("no end after {} s", kHangSeconds);
  return fmt::format("signal {}", WTERMSIG(status));
}

}  // namespace

void Runner::run_child(const Plan& plan, bool printing, int outcome_pipe) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // a runner that is stopped leaves nothing behind
  alarm(kHangSeconds);
  Outcome outcome;
  {
    Simulation simulation(plan, printing);
    outcome = simulation.run();
  }
  std::fflush(stdout);
  const bool written = write(outcome_pipe, &outcome, sizeof outcome) == sizeof outcome;
  end_process(written ? 0 : 1);
}

void Runner::start(Plan plan, bool printing) {
  while (children_.size() >= jobs_) collect();
  if (failed_ > 0) return;
  int ends[2];
  if (pipe(ends) != 0) abort();
  std::fflush(stdout);
  std::fflush(stderr);
  const int child = fork();
  if (child == 0) run_child(plan, printing, ends[1]);
  close(ends[1]);
  children_[child] = {replay_of(plan), ends[0]};
}

void Runner::collect() {
  int status = 0;
  const int ended = waitpid(-1, &status, 0);
  const auto found = children_.find(ended);
  if (found == children_.end()) return;
  const Child child = found->second;
  children_.erase(found);
  Outcome outcome;
  const bool complete = read(child.outcome_pipe, &outcome, sizeof outcome) == sizeof outcome;
  close(child.outcome_pipe);
  ++done_;
  if (status != 0 || !complete) {
    ++failed_;
    fmt::print(stderr, "FAILED ({}). Replay with a trace:\n  {}\n", describe(status), child.replay);
    return;
  }
  total_.hash ^= outcome.hash;
  total_.events += outcome.events;
  total_.points += outcome.points;
  total_.virtual_ns += outcome.virtual_ns;
  total_.messages += outcome.messages;
  total_.datagrams += outcome.datagrams;
}

void Runner::finish() {
  while (!children_.empty()) collect();
}

}  // namespace tarn_sim
