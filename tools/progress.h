#ifndef TARN_TOOLS_PROGRESS_H_
#define TARN_TOOLS_PROGRESS_H_

#include <cstdint>
#include <optional>
#include <string>

#include "tools/clock.h"

namespace tarn_tool {

// How far one file is, and how fast it goes.
class Progress {
 public:
  // `total` bytes to go, unknown for a stream.
  Progress(std::string label, std::optional<std::uint64_t> total, TimePoint now);

  // `done` bytes so far.
  void update(std::uint64_t done, TimePoint now);

  // "name  3.5 MiB of 8.0 MiB  43%  1.2 MiB/s  3.7 s left".
  std::string text() const;

  // The whole transfer, for the line that closes it: "3.5 s, 1.2 MiB/s".
  std::string total_text(TimePoint now) const;

 private:
  const std::string label_;
  const std::optional<std::uint64_t> total_;
  const TimePoint start_;
  std::uint64_t done_ = 0;
  TimePoint sample_time_;
  std::uint64_t sample_done_ = 0;
  std::optional<double> rate_;  // bytes per second, smoothed
};

// The line on standard error that says how things are going: redrawn in place on a terminal,
// otherwise a plain line about once a second.
class StatusLine {
 public:
  StatusLine();

  // True when it is time to show something again.
  bool due(TimePoint now) const;
  void show(std::string text, TimePoint now);

  // Wipes a line that was drawn, so that lasting text can be written.
  void clear();

 private:
  const bool terminal_;
  bool drawn_ = false;
  TimePoint last_;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_PROGRESS_H_
