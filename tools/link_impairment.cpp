#include "tools/link_impairment.h"

#include <algorithm>
#include <cmath>

namespace tarn_tool {
namespace {

// A datagram that is held back waits this long on top of the delay.
constexpr Microseconds kHoldMin{5000};
constexpr Microseconds kHoldMax{25000};

constexpr std::uint64_t kSmallestQueue = 64 << 10;

Microseconds scaled(Microseconds span, double factor) {
  return Microseconds(std::llround(static_cast<double>(span.count()) * factor));
}

std::mt19937_64 seeded(std::uint64_t seed, std::uint32_t peer, std::uint32_t direction) {
  std::seed_seq sequence{static_cast<std::uint32_t>(seed), static_cast<std::uint32_t>(seed >> 32),
                         peer, direction};
  return std::mt19937_64(sequence);
}

}  // namespace

std::uint64_t queue_limit(const LinkSettings& settings) {
  if (settings.queue_bytes) return *settings.queue_bytes;
  return std::max(kSmallestQueue, settings.rate.value_or(0) / 80);
}

LinkImpairment::LinkImpairment(const LinkSettings& settings, std::uint64_t seed, std::uint32_t peer,
                               std::uint32_t direction)
    : settings_(settings), random_(seeded(seed, peer, direction)) {}

// By hand, since the standard's distributions differ from one library to the next.
double LinkImpairment::draw() { return static_cast<double>(random_() >> 11) * 0x1p-53; }

LinkImpairment::Verdict LinkImpairment::pass(Microseconds now, std::size_t bytes) {
  // All draws for every datagram, so that one's fate does not shift the next one's.
  const bool lost = draw() < settings_.loss;
  const bool duplicated = draw() < settings_.duplicate;
  const bool reordered = draw() < settings_.reorder;
  const double sway = 2 * draw() - 1;
  const double hold = draw();

  Verdict verdict;
  if (lost) {
    verdict.fate = Fate::kLost;
    return verdict;
  }
  const auto departure = depart(now, bytes);
  if (!departure) {
    verdict.fate = Fate::kQueueFull;
    return verdict;
  }
  const Microseconds delay =
      std::max(Microseconds(0), settings_.delay + scaled(settings_.jitter, sway));
  verdict.duplicated = duplicated;
  verdict.reordered = reordered;
  verdict.due = std::max(last_due_, *departure + delay);
  if (reordered) {
    verdict.due += kHoldMin + scaled(kHoldMax - kHoldMin, hold);
  } else {
    last_due_ = verdict.due;
  }
  return verdict;
}

std::optional<Microseconds> LinkImpairment::depart(Microseconds now, std::size_t bytes) {
  if (!settings_.rate) return now;
  const double bytes_per_us = static_cast<double>(*settings_.rate) / 8e6;
  const double now_us = static_cast<double>(now.count());
  const double start = std::max(now_us, busy_until_us_);
  const double waiting = (start - now_us) * bytes_per_us;
  const double size = static_cast<double>(bytes);
  // An idle link takes any datagram, however small the queue is.
  if (waiting > 0 && waiting + size > static_cast<double>(queue_limit(settings_))) {
    return std::nullopt;
  }
  busy_until_us_ = start + size / bytes_per_us;
  return Microseconds(std::llround(busy_until_us_));
}

}  // namespace tarn_tool
