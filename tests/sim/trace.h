// Trace: what happened in a run, as a hash and, on demand, as text.
#ifndef TARN_TESTS_SIM_TRACE_H_
#define TARN_TESTS_SIM_TRACE_H_

#include <fmt/format.h>

#include <cstdint>
#include <cstdio>
#include <string_view>

namespace tarn_sim {

// Every event goes into the hash, so two runs with the same hash did the same things at the same
// time. Arguments are numbers or texts that are the same in every run: no address among them.
class Trace {
 public:
  explicit Trace(bool printing) : printing_(printing) {}

  template <typename... Args>
  void event(uint64_t now_ns, std::string_view who, fmt::format_string<const Args&...> format,
             const Args&... args) {
    ++events_;
    mix(now_ns);
    mix(who);
    const fmt::string_view text = format;
    mix(std::string_view(text.data(), text.size()));
    (mix(args), ...);
    if (!printing_) return;
    fmt::print(stdout, "{:>12.6f} {:<12} ", static_cast<double>(now_ns) * 1e-9, who);
    fmt::print(stdout, format, args...);
    std::fputc('\n', stdout);
  }

  // A line for the reader alone.
  void note(std::string_view who, std::string_view text) const {
    if (printing_) fmt::print(stdout, "{:>12} {:<12} {}\n", "", who, text);
  }

  uint64_t hash() const { return hash_; }
  uint64_t events() const { return events_; }

 private:
  // FNV-1a, over whole words where there are any.
  void mix(uint64_t word) { hash_ = (hash_ ^ word) * kPrime; }
  void mix(std::string_view text) {
    for (const char each : text) mix(static_cast<uint64_t>(static_cast<unsigned char>(each)));
  }

  static constexpr uint64_t kPrime = 0x100000001b3;
  uint64_t hash_ = 0xcbf29ce484222325;
  uint64_t events_ = 0;
  const bool printing_;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_TRACE_H_
