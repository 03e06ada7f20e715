#include "tests/faults/fault_sweep.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>

#include <algorithm>
#include <string>

#include "tests/faults/children.h"
#include "tests/faults/epilogue.h"
#include "tests/support/plain_socket.h"

namespace tarn_test {
namespace {

constexpr unsigned kChildSeconds = 60;
// The threads of the library do not turn equally often each time.
constexpr unsigned long kBeyondTheLast = 2;

struct Trial {
  Fault fault;
  unsigned long kth;
};

// What children report to their parent.
struct Report {
  unsigned long calls[kFaultPointCount];
  unsigned long struck;
};

Report* shared_report() {
  void* const memory =
      mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return static_cast<Report*>(memory);
}

void count_calls(const Scenario& scenario, Report* report) {
  const auto results = run_children(
      1,
      [&](size_t) {
        const int before = open_descriptors();
        fault_count_calls();
        scenario.run(Play(true));
        fault_disarm();
        for (int i = 0; i < kFaultPointCount; ++i) {
          report->calls[i] = fault_calls(static_cast<FaultPoint>(i));
        }
        expect_sessions_work();
        expect_sockets_work();
        expect_no_descriptors_left(before, 0);
      },
      kChildSeconds);
  ASSERT_TRUE(results[0].passed()) << "without any fault:\n" << results[0].output;
}

// From 1 to `last`, evenly spread, both ends included.
std::vector<unsigned long> spread(unsigned long last, unsigned long sample) {
  std::vector<unsigned long> all;
  const unsigned long count =
      getenv("TARN_FAULTS_ALL") != nullptr ? last : std::min(last, std::max(sample, 2ul));
  for (unsigned long i = 0; i < count; ++i) {
    all.push_back(count == 1 ? 1 : 1 + i * (last - 1) / (count - 1));
  }
  return all;
}

std::vector<Trial> plan(const std::vector<Fault>& faults, const Report& report,
                        unsigned long sample) {
  std::vector<Trial> trials;
  for (const Fault& fault : faults) {
    const unsigned long calls = report.calls[fault.point];
    if (calls == 0) continue;
    for (const unsigned long kth : spread(calls + kBeyondTheLast, sample)) {
      trials.push_back({fault, kth});
    }
  }
  return trials;
}

void perform(const Scenario& scenario, const Trial& trial, Report* report) {
  const int before = open_descriptors();
  const auto arm = trial.fault.lasts ? fault_arm_lasting : fault_arm;
  arm(trial.fault.point, trial.kth, trial.fault.error);
  scenario.run(Play(trial.fault.outcome == Outcome::kCompletes, trial.fault.lasts));
  fault_disarm();
  if (fault_has_struck()) __atomic_fetch_add(&report->struck, 1, __ATOMIC_RELAXED);
  expect_sessions_work();
  expect_sockets_work();
  expect_no_descriptors_left(before, trial.fault.extra_descriptors);
}

bool has(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

bool is_documented_end(const Trial& trial, const ChildResult& result) {
  return result.aborted() && trial.fault.outcome == Outcome::kOutOfMemory &&
         has(result.output, "std::bad_alloc");
}

}  // namespace

void sweep(const Scenario& scenario, const std::vector<Fault>& faults, unsigned long sample) {
  Report* const report = shared_report();
  ASSERT_NO_FATAL_FAILURE(count_calls(scenario, report));
  const std::vector<Trial> trials = plan(faults, *report, sample);

  const std::vector<ChildResult> results = run_children(
      trials.size(), [&](size_t i) { perform(scenario, trials[i], report); }, kChildSeconds);

  unsigned long ended = 0;
  for (size_t i = 0; i < trials.size(); ++i) {
    if (results[i].passed()) continue;
    if (is_documented_end(trials[i], results[i])) {
      ++ended;
      continue;
    }
    ADD_FAILURE() << scenario.name << ", " << describe(trials[i].fault) << " at call "
                  << trials[i].kth << (results[i].hung() ? " hangs" : " fails") << ", status "
                  << results[i].status << "\n"
                  << results[i].output;
  }
  printf(
      "%s: %lu faults struck and were survived, %lu ended the process as they may, of %zu tried\n",
      scenario.name, report->struck, ended, trials.size());
  EXPECT_GT(report->struck + ended, 0u);
  munmap(report, sizeof *report);
}

}  // namespace tarn_test
