#include "tests/sim/measurement.h"

#include <fmt/format.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "tarn/tarn.h"
#include "tests/sim/boundary.h"
#include "tests/sim/bulk.h"
#include "tests/sim/latency.h"
#include "tests/sim/world.h"

namespace tarn_sim {
namespace {

struct LatencyCase {
  double loss;
  size_t messages;  // the more, the fewer losses decide about the 99th percentile
  Latency expected;
};

struct BulkCase {
  unsigned int window;
  unsigned int transfers;
  double expected_mbit_per_s;
};

// What the rules of the design come to: the first re-send 30 to 60 ms after the message and the
// others every 120 ms, acknowledgements every 50 ms, which come 45 to 95 ms after the message. So
// nine of ten messages are re-sent although nothing is lost.
constexpr LatencyCase kLatencyCases[] = {
    {0.00, 25'000, {22.5, 24.9, 2.3}}, {0.01, 50'000, {22.5, 58.6, 2.3}},
    {0.05, 500'000, {22.5, 122, 2.3}}, {0.10, 150'000, {23.5, 192, 2.3}},
    {0.20, 150'000, {41.0, 342, 2.5}}, {0.30, 150'000, {99.0, 521, 2.75}},
};
constexpr BulkCase kBulkCases[] = {{32, 10, 5.7}, {256, 20, 13.3}};
constexpr uint64_t kBottleneck = 100'000'000;  // bits a second, with a queue of 64 KB
constexpr double kTolerance = 0.05;

struct Figure {
  std::string name;
  double measured;
  double expected;

  double deviation() const { return measured / expected - 1; }
  bool is_off() const { return std::abs(deviation()) > kTolerance; }
};

// In the order of the cases.
struct Measured {
  std::vector<Latency> latencies;
  std::vector<double> bulk;
};

Measured measure_all(World& world, Random& random) {
  Measured measured;
  for (const LatencyCase& each : kLatencyCases) {
    measured.latencies.push_back(measure_latency(world, random.fork(), each.loss, each.messages));
  }
  for (const BulkCase& each : kBulkCases) {
    Pair::Plan plan;
    plan.settings.send_window = plan.settings.recv_window = each.window;
    plan.link_ab.rate_bps = kBottleneck;
    measured.bulk.push_back(measure_bulk(world, random.fork(), plan, each.transfers));
  }
  return measured;
}

std::vector<Figure> compare(const Measured& measured) {
  std::vector<Figure> figures;
  for (size_t i = 0; i < measured.latencies.size(); ++i) {
    const Latency& latency = measured.latencies[i];
    const Latency& expected = kLatencyCases[i].expected;
    const std::string at = fmt::format(" at {:.0f} % loss", kLatencyCases[i].loss * 100);
    figures.push_back({"p50 in ms" + at, latency.p50_ms, expected.p50_ms});
    figures.push_back({"p99 in ms" + at, latency.p99_ms, expected.p99_ms});
    figures.push_back({"bytes on the wire per byte" + at, latency.wire_bytes_per_payload_byte,
                       expected.wire_bytes_per_payload_byte});
  }
  for (size_t i = 0; i < measured.bulk.size(); ++i) {
    figures.push_back({fmt::format("Mbit/s with windows of {}", kBulkCases[i].window),
                       measured.bulk[i], kBulkCases[i].expected_mbit_per_s});
  }
  return figures;
}

void print_json(const Measured& measured) {
  std::vector<std::string> latencies;
  for (size_t i = 0; i < measured.latencies.size(); ++i) {
    const Latency& each = measured.latencies[i];
    latencies.push_back(fmt::format(
        R"({{"loss":{},"p50_ms":{:.2f},"p99_ms":{:.2f},"wire_bytes_per_payload_byte":{:.3f}}})",
        kLatencyCases[i].loss, each.p50_ms, each.p99_ms, each.wire_bytes_per_payload_byte));
  }
  std::vector<std::string> bulk;
  for (size_t i = 0; i < measured.bulk.size(); ++i) {
    bulk.push_back(fmt::format(R"({{"window":{},"mbit_per_s":{:.2f}}})", kBulkCases[i].window,
                               measured.bulk[i]));
  }
  fmt::print("{{\"latency\":[{}],\"bulk\":[{}]}}\n", fmt::join(latencies, ","),
             fmt::join(bulk, ","));
}

void print_table(const Measured& measured) {
  fmt::print("{:>6}  {:>8}  {:>8}  {}\n", "loss", "p50 ms", "p99 ms", "bytes on the wire per byte");
  for (size_t i = 0; i < measured.latencies.size(); ++i) {
    const Latency& each = measured.latencies[i];
    fmt::print("{:>4.0f} %  {:>8.1f}  {:>8.1f}  {:>26.2f}\n", kLatencyCases[i].loss * 100,
               each.p50_ms, each.p99_ms, each.wire_bytes_per_payload_byte);
  }
  fmt::print("\n{:>6}  {:>8}\n", "window", "Mbit/s");
  for (size_t i = 0; i < measured.bulk.size(); ++i) {
    fmt::print("{:>6}  {:>8.2f}\n", kBulkCases[i].window, measured.bulk[i]);
  }
}

// How many figures are off.
int print_check(const Measured& measured) {
  int off = 0;
  for (const Figure& each : compare(measured)) {
    fmt::print("{:<42} {:>7.2f}, expected {:>7.2f}: {:>+5.1f} %{}\n", each.name, each.measured,
               each.expected, each.deviation() * 100, each.is_off() ? "  OFF" : "");
    if (each.is_off()) ++off;
  }
  if (off > 0) fmt::print("Off by more than {:.0f} %: {}\n", kTolerance * 100, off);
  return off;
}

int print(const Measured& measured, Report report) {
  switch (report) {
    case Report::kTable:
      print_table(measured);
      return 0;
    case Report::kJson:
      print_json(measured);
      return 0;
    case Report::kCheck:
      return print_check(measured);
  }
  return 0;
}

}  // namespace

void measure(uint64_t seed, Report report) {
  run_measurement(seed, [report](World& world, Random& random) {
    return print(measure_all(world, random), report);
  });
}

void run_measurement(uint64_t seed, const std::function<int(World&, Random&)>& run) {
  Random random(seed);
  World world(random.fork(), Preemption(), 0, false);
  begin_outside();
  {
    const InsideLibrary inside;
    tarn_init();
  }
  const int off = run(world, random);
  std::fflush(stdout);
  end_process(off == 0 ? 0 : 1);
}

}  // namespace tarn_sim
