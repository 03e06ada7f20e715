#include "tools/units.h"

#include <fmt/format.h>

#include <cctype>
#include <charconv>
#include <cmath>
#include <initializer_list>

namespace tarn_tool {
namespace {

struct Unit {
  std::string_view name;  // lower case
  double factor;
};

std::string lower_case(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return result;
}

// The length of the plain decimal number ("12", "1.5", ".5") that `text` starts with.
std::size_t number_length(std::string_view text) {
  std::size_t length = 0;
  std::size_t digits = 0;
  bool point = false;
  for (; length < text.size(); ++length) {
    const char c = text[length];
    if (c == '.' && !point) {
      point = true;
    } else if (c >= '0' && c <= '9') {
      ++digits;
    } else {
      break;
    }
  }
  return digits > 0 ? length : 0;
}

// The number in `text` times the factor of its unit, when the unit is one of `units`.
std::optional<double> parse_quantity(std::string_view text, std::initializer_list<Unit> units) {
  const std::size_t length = number_length(text);
  if (length == 0) return std::nullopt;
  double number = 0;
  // from_chars and not strtod: a decimal point must not depend on the locale.
  const auto parsed = std::from_chars(text.data(), text.data() + length, number);
  if (parsed.ec != std::errc() || parsed.ptr != text.data() + length) return std::nullopt;
  std::string_view rest = text.substr(length);
  while (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
  const std::string unit = lower_case(rest);
  for (const Unit& candidate : units) {
    if (candidate.name == unit) return number * candidate.factor;
  }
  return std::nullopt;
}

// `value` rounded, when it lies in [low, high].
std::optional<std::uint64_t> bounded(std::optional<double> value, double low, double high) {
  if (!value || *value < low || *value > high) return std::nullopt;
  return static_cast<std::uint64_t>(std::llround(*value));
}

}  // namespace

std::optional<double> parse_percent(std::string_view text) {
  const auto percent = parse_quantity(text, {{"", 1}, {"%", 1}});
  if (!percent || *percent > 100) return std::nullopt;
  return *percent / 100;
}

std::optional<std::chrono::microseconds> parse_duration(std::string_view text) {
  const auto value =
      bounded(parse_quantity(text, {{"", 1e3}, {"us", 1}, {"ms", 1e3}, {"s", 1e6}, {"min", 6e7}}),
              0, 3.6e9);
  if (!value) return std::nullopt;
  return std::chrono::microseconds(*value);
}

std::optional<std::uint64_t> parse_rate(std::string_view text) {
  return bounded(
      parse_quantity(text, {{"", 1}, {"bit", 1}, {"kbit", 1e3}, {"mbit", 1e6}, {"gbit", 1e9}}), 1,
      1e12);
}

std::optional<std::uint64_t> parse_size(std::string_view text) {
  constexpr double kKi = 1024;
  return bounded(parse_quantity(text, {{"", 1},
                                       {"b", 1},
                                       {"k", kKi},
                                       {"kib", kKi},
                                       {"m", kKi * kKi},
                                       {"mib", kKi * kKi},
                                       {"g", kKi * kKi * kKi},
                                       {"gib", kKi * kKi * kKi}}),
                 0, 1e15);
}

std::string format_bytes(double bytes) {
  if (bytes < 1024) return fmt::format("{:.0f} B", bytes);
  static constexpr const char* kNames[] = {"KiB", "MiB", "GiB", "TiB"};
  std::size_t step = 0;
  double value = bytes / 1024;
  while (value >= 1024 && step < 3) {
    value /= 1024;
    ++step;
  }
  return fmt::format("{:.1f} {}", value, kNames[step]);
}

std::string format_seconds(double seconds) {
  if (seconds < 60) return fmt::format("{:.1f} s", seconds);
  const auto whole = static_cast<unsigned long long>(seconds);
  if (whole < 3600) return fmt::format("{}:{:02}", whole / 60, whole % 60);
  return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

}  // namespace tarn_tool
