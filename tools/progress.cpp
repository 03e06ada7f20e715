#include "tools/progress.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "tools/terminal.h"
#include "tools/units.h"

namespace tarn_tool {
namespace {

constexpr std::chrono::milliseconds kSampleSpan{250};
constexpr double kNewSampleWeight = 0.3;
constexpr std::chrono::milliseconds kRedrawSpan{100};
constexpr std::chrono::milliseconds kPlainSpan{1000};

std::size_t terminal_columns() {
  winsize size = {};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
  return size.ws_col;
}

}  // namespace

Progress::Progress(std::string label, std::optional<std::uint64_t> total, TimePoint now)
    : label_(std::move(label)), total_(total), start_(now), sample_time_(now) {}

void Progress::update(std::uint64_t done, TimePoint now) {
  done_ = std::max(done_, done);
  const auto span = now - sample_time_;
  if (span < kSampleSpan) return;
  const double rate = static_cast<double>(done_ - sample_done_) / in_seconds(span);
  rate_ = rate_ ? *rate_ + kNewSampleWeight * (rate - *rate_) : rate;
  sample_time_ = now;
  sample_done_ = done_;
}

std::string Progress::text() const {
  const double done = static_cast<double>(done_);
  std::string text = fmt::format("{}  {}", label_, format_bytes(done));
  if (total_) {
    const double total = static_cast<double>(*total_);
    const double percent = total > 0 ? std::min(100.0, 100 * done / total) : 100;
    text += fmt::format(" of {}  {:.0f}%", format_bytes(total), percent);
  }
  if (rate_) text += fmt::format("  {}/s", format_bytes(*rate_));
  if (rate_ && total_ && *rate_ > 0 && *total_ >= done_) {
    const double left = static_cast<double>(*total_ - done_) / *rate_;
    text += fmt::format("  {} left", format_seconds(left));
  }
  return text;
}

std::string Progress::total_text(TimePoint now) const {
  const double span = in_seconds(now - start_);
  const double rate = span > 0 ? static_cast<double>(done_) / span : 0;
  return fmt::format("{}, {}/s", format_seconds(span), format_bytes(rate));
}

StatusLine::StatusLine() : terminal_(isatty(STDERR_FILENO) == 1), last_(Clock::now()) {}

bool StatusLine::due(TimePoint now) const {
  return now - last_ >= (terminal_ ? kRedrawSpan : kPlainSpan);
}

void StatusLine::show(std::string text, TimePoint now) {
  last_ = now;
  if (!terminal_) {
    say(stderr, std::move(text));
    return;
  }
  // One column stays free: a full line would wrap on some terminals.
  text = "\r" + text.substr(0, terminal_columns() - 1) + "\x1b[K";
  std::fputs(text.c_str(), stderr);
  std::fflush(stderr);
  drawn_ = true;
}

void StatusLine::clear() {
  if (!drawn_) return;
  std::fputs("\r\x1b[K", stderr);
  std::fflush(stderr);
  drawn_ = false;
}

}  // namespace tarn_tool
