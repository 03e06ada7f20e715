// tarn-sim: runs the library, its worker and applications in virtual time, as drawn from seeds.
#include <fmt/format.h>
#include <sys/personality.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "tests/sim/control_measurement.h"
#include "tests/sim/measurement.h"
#include "tests/sim/runner.h"

namespace {

struct Options {
  uint64_t first = 1;
  uint64_t seeds = 1;
  std::vector<std::string> plans;
  bool all_plans = false;
  bool list = false;
  bool trace = false;
  bool hash = false;
  bool json = false;
  bool check = false;
  bool control = false;
  unsigned int jobs = std::max(1U, std::thread::hardware_concurrency());
};

void list_plans() {
  for (const std::string& name : tarn_sim::named_plans()) fmt::print("{}\n", name);
}

// With random addresses two runs of one seed would still do the same, but the library's own order
// of timers that are due at the same moment goes by address.
void fix_addresses(char** arguments) {
  const int current = personality(0xFFFFFFFF);
  if (current == -1 || (current & ADDR_NO_RANDOMIZE) != 0) return;
  if (personality(static_cast<unsigned long>(current) | ADDR_NO_RANDOMIZE) == -1) return;
  execv("/proc/self/exe", arguments);
}

void start_all(tarn_sim::Runner& runner, const Options& options) {
  for (uint64_t seed = options.first; seed < options.first + options.seeds; ++seed) {
    if (runner.failed() > 0) return;
    if (options.plans.empty()) runner.start(tarn_sim::draw_plan(seed), options.trace);
    for (const std::string& name : options.plans) {
      runner.start(tarn_sim::named_plan(name, seed), options.trace);
    }
  }
}

void report(const tarn_sim::Runner& runner, const Options& options, double seconds) {
  const tarn_sim::Outcome& total = runner.total();
  if (options.hash) fmt::print("{:016x}\n", total.hash);
  if (options.hash) return;
  const double virtual_seconds = static_cast<double>(total.virtual_ns) * 1e-9;
  fmt::print(
      "{} runs, {} failed: {:.2f} simulated hours in {:.1f} s, {:.0f} simulated seconds a "
      "second; {} messages, {} datagrams, {} points, {} events\n",
      runner.done(), runner.failed(), virtual_seconds / 3600, seconds, virtual_seconds / seconds,
      total.messages, total.datagrams, total.points, total.events);
}

CLI::App* add_measure(CLI::App& app, Options& options) {
  CLI::App* const measure =
      app.add_subcommand("measure", "Measure latency and throughput, drawn from the seed");
  measure->fallthrough();
  CLI::Option* const json = measure->add_flag("--json", options.json, "Print JSON");
  measure->add_flag("--control", options.control, "What sessions with options deliver beside plain ones");
  measure
      ->add_flag("--check", options.check, "Compare with what the design comes to; 1 if it differs")
      ->excludes(json);
  return measure;
}

tarn_sim::Report report_of(const Options& options) {
  if (options.check) return tarn_sim::Report::kCheck;
  return options.json ? tarn_sim::Report::kJson : tarn_sim::Report::kTable;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app("Simulates conversations in virtual time, drawn from seeds.", "tarn-sim");
  app.add_option("--seed", options.first, "The first seed")->capture_default_str();
  app.add_option("--seeds", options.seeds, "How many seeds, from the first on")
      ->capture_default_str();
  app.add_option("--plan", options.plans, "Run this plan instead of drawing one; may be repeated")
      ->check(CLI::IsMember(tarn_sim::named_plans()));
  app.add_flag("--all-plans", options.all_plans, "Run every plan that has a name");
  app.add_flag("--list", options.list, "Name the plans");
  app.add_flag("--trace", options.trace, "Print what happens");
  app.add_flag("--hash", options.hash, "Print nothing but the hash of everything that happened");
  app.add_option("--jobs", options.jobs, "Runs at a time")->capture_default_str();
  const CLI::App* const measure = add_measure(app, options);
  CLI11_PARSE(app, argc, argv);
  fix_addresses(argv);
  if (measure->parsed() && options.control) {
    tarn_sim::measure_control(options.first, report_of(options));
  }
  if (measure->parsed()) tarn_sim::measure(options.first, report_of(options));
  if (options.list) {
    list_plans();
    return 0;
  }
  if (options.all_plans) options.plans = tarn_sim::named_plans();

  const auto begun = std::chrono::steady_clock::now();
  tarn_sim::Runner runner(options.trace ? 1 : options.jobs);
  start_all(runner, options);
  runner.finish();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
  report(runner, options, took.count());
  return runner.failed() == 0 ? 0 : 1;
}
