#include "tests/sim/control_measurement.h"

#include <fmt/format.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/sim/bulk.h"
#include "tests/sim/delivery.h"

namespace tarn_sim {
namespace {

constexpr long long kMiB = 1024 * 1024;
constexpr uint64_t kBottleneck = 100'000'000;  // bits a second, with a queue of 64 KB
constexpr int kRuns = 5;                       // of each case, of which the mean counts

struct Case {
  std::string what;
  const char* unit;
  double least;  // with options
  std::function<double(World&, Random)> measure_plain;
  std::function<double(World&, Random)> measure_with_options;
};

struct Figure {
  Case of;
  double plain;
  double with_options;

  bool is_below() const { return with_options < of.least; }
};

ControlledPair::Plan lossy(double loss) {
  ControlledPair::Plan plan;
  plan.link_ab.loss = plan.link_ba.loss = loss;
  return plan;
}

ControlledPair::Plan dark_at_times(double seconds) {
  constexpr uint64_t kLight = 20 * kNsPerSecond;
  ControlledPair::Plan plan;
  for (LinkSettings* const link : {&plan.link_ab, &plan.link_ba}) {
    link->up_ns = kLight;
    link->down_ns = static_cast<uint64_t>(seconds * kNsPerSecond);
  }
  return plan;
}

ControlledPair::Plan balanced(ControlledPair::Plan plan) {
  plan.a.profile = plan.b.profile = TARN_PROFILE_BALANCED;
  return plan;
}

Case stream(const std::string& where, const ControlledPair::Plan& path, unsigned int per_second) {
  const auto measure = [per_second](World& world, Random random, const ControlledPair::Plan& plan) {
    return 100 * measure_stream(world, plan, random, per_second);
  };
  return {fmt::format("{} messages a second, {}", per_second, where), "% delivered", 100,
          [=](World& world, Random random) { return measure(world, random, path); },
          [=](World& world, Random random) { return measure(world, random, balanced(path)); }};
}

Case stream_with_loss(unsigned int per_second, double loss) {
  return stream(fmt::format("{:.0f} % loss", loss * 100), lossy(loss), per_second);
}

Case stream_with_dark(double seconds) {
  return stream(fmt::format("dark for {} s of each 20", seconds), dark_at_times(seconds), 50);
}

Case message(const char* name, size_t size, double loss, long long queue) {
  ControlledPair::Plan with_options = balanced(lossy(loss));
  with_options.a.options.emplace_back(TARN_OPTION_SEND_QUEUE, queue);
  const auto measure = [size](World& world, Random random, const ControlledPair::Plan& plan) {
    return measure_message(world, plan, random, size) ? 100.0 : 0.0;
  };
  return {fmt::format("one message of {}, {:.0f} % loss", name, loss * 100), "% delivered", 100,
          [=](World& world, Random random) { return measure(world, random, lossy(loss)); },
          [=](World& world, Random random) { return measure(world, random, with_options); }};
}

// Whose settings, as those of the process, hold for plain ones.
Case bulk(const char* what, double least, const ControlledPair::Plan& with_options) {
  return {what, "Mbit/s", least,
          [=](World& world, Random random) {
            Pair::Plan plain;
            plain.settings = with_options.settings;
            plain.link_ab = with_options.link_ab;
            plain.link_ba = with_options.link_ba;
            return measure_bulk(world, random, plain, 1);
          },
          [=](World& world, Random random) {
            return measure_transfer(world, with_options, random, 15000);
          }};
}

Case reordering_bulk() {
  ControlledPair::Plan plan = balanced(ControlledPair::Plan());
  plan.settings.send_window = plan.settings.recv_window = 256;
  plan.link_ab.rate_bps = kBottleneck;
  plan.link_ab.in_order = plan.link_ba.in_order = false;
  return bulk("bulk, jitter that reorders, windows of 256", 8, plan);
}

Case bulk_to_small_peer() {
  ControlledPair::Plan plan = lossy(0.05);
  plan.link_ab.rate_bps = kBottleneck;
  plan.a.profile = TARN_PROFILE_BULK;
  return bulk("bulk, 5 % loss, to a plain peer with a window of 32", 3.6, plan);
}

std::vector<Case> all_cases() {
  return {stream_with_loss(250, 0.01),
          stream_with_loss(500, 0.01),
          stream_with_loss(200, 0.05),
          stream_with_loss(200, 0.10),
          stream_with_dark(0.7),
          stream_with_dark(1),
          stream_with_dark(2),
          stream_with_dark(4),
          message("100 KB", 100'000, 0.02, kMiB),
          message("1 MB", 1'000'000, 0.01, kMiB),
          message("16 MB", 16'000'000, 0.05, 32 * kMiB),
          reordering_bulk(),
          bulk_to_small_peer()};
}

double mean(World& world, Random random, const std::function<double(World&, Random)>& measure) {
  double sum = 0;
  for (int i = 0; i < kRuns; ++i) sum += measure(world, random.fork());
  return sum / kRuns;
}

std::vector<Figure> measure_all(World& world, Random& random) {
  std::vector<Figure> figures;
  for (const Case& each : all_cases()) {
    figures.push_back({each, mean(world, random.fork(), each.measure_plain),
                       mean(world, random.fork(), each.measure_with_options)});
  }
  return figures;
}

void print_json(const std::vector<Figure>& figures) {
  std::vector<std::string> objects;
  for (const Figure& each : figures) {
    objects.push_back(fmt::format(
        R"({{"what":"{}","unit":"{}","plain":{:.2f},"with_options":{:.2f},"least":{}}})",
        each.of.what, each.of.unit, each.plain, each.with_options, each.of.least));
  }
  fmt::print("{{\"control\":[{}]}}\n", fmt::join(objects, ","));
}

void print_table(const std::vector<Figure>& figures) {
  for (const Figure& each : figures) {
    fmt::print("{:<52} {:>6.2f} plain, {:>6.2f} with options, at least {} {}{}\n", each.of.what,
               each.plain, each.with_options, each.of.least, each.of.unit,
               each.is_below() ? "  BELOW" : "");
  }
}

}  // namespace

void measure_control(uint64_t seed, Report report) {
  run_measurement(seed, [report](World& world, Random& random) {
    const std::vector<Figure> figures = measure_all(world, random);
    if (report == Report::kJson) {
      print_json(figures);
    } else {
      print_table(figures);
    }
    int below = 0;
    for (const Figure& each : figures) below += each.is_below() ? 1 : 0;
    return report == Report::kCheck ? below : 0;
  });
}

}  // namespace tarn_sim
