#ifndef TARN_TOOLS_UNITS_H_
#define TARN_TOOLS_UNITS_H_

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarn_tool {

// Numbers with units, as they stand on the command line. Each parser takes the whole text and
// returns nothing when it is malformed, negative, unknown in its unit or out of range.

// "10%", "0.5 %" or "10" as a probability from 0 to 1.
std::optional<double> parse_percent(std::string_view text);

// "500us", "20ms", "1.5s", "2min"; a bare number is milliseconds. At most one hour.
std::optional<std::chrono::microseconds> parse_duration(std::string_view text);

// "9600bit", "500kbit", "20mbit", "1gbit" in bits per second, steps of 1000; a bare number is bits.
// At least 1.
std::optional<std::uint64_t> parse_rate(std::string_view text);

// "64k", "1M", "16KiB", "1500" in bytes, steps of 1024.
std::optional<std::uint64_t> parse_size(std::string_view text);

// "512 B", "1.5 KiB", "64.0 MiB".
std::string format_bytes(double bytes);

// "0.4 s", "1:05", "2:00:09".
std::string format_seconds(double seconds);

}  // namespace tarn_tool

#endif  // TARN_TOOLS_UNITS_H_
