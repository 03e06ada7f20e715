#include "tests/sim/link.h"

#include <algorithm>
#include <utility>

namespace tarn_sim {

void Link::send(uint64_t now, std::string_view datagram, bool feedback_only) {
  ++datagrams_;
  bytes_ += datagram.size();
  if (is_lost(now, feedback_only)) {
    ++lost_;
    return;
  }
  const uint64_t departure = pass_bottleneck(now, datagram.size());
  if (departure == kNever) {
    ++lost_;
    return;
  }
  std::string bytes(datagram);
  damage(bytes);
  if (random_.chance(settings_.duplicate)) on_the_way_.emplace(draw_arrival(departure), bytes);
  on_the_way_.emplace(draw_arrival(departure), std::move(bytes));
}

bool Link::is_lost(uint64_t now, bool feedback_only) {
  in_burst_ = random_.chance(in_burst_ ? 1 - settings_.burst_end : settings_.burst_begin);
  const bool lost = random_.chance(settings_.loss);
  const bool feedback_lost = random_.chance(settings_.feedback_loss) && feedback_only;
  const uint64_t period = settings_.up_ns + settings_.down_ns;
  const bool down = settings_.down_ns > 0 && now % period >= settings_.up_ns;
  return in_burst_ || lost || feedback_lost || down;
}

uint64_t Link::pass_bottleneck(uint64_t now, size_t size) {
  if (settings_.rate_bps == 0) return now;
  const auto time_for = [this](uint64_t bytes) {
    return bytes * 8 * kNsPerSecond / settings_.rate_bps;
  };
  const uint64_t start = std::max(now, busy_until_);
  if (start - now > time_for(settings_.queue_bytes)) return kNever;
  busy_until_ = start + time_for(size);
  return busy_until_;
}

void Link::damage(std::string& datagram) {
  if (random_.chance(settings_.truncate)) datagram.resize(random_.between(0, datagram.size() - 1));
  if (datagram.empty()) return;
  if (random_.chance(settings_.bad_header)) datagram[0] = static_cast<char>(datagram[0] ^ 0x40);
  if (random_.chance(settings_.corrupt)) {
    char& byte = datagram[random_.between(0, datagram.size() - 1)];
    byte = static_cast<char>(byte ^ static_cast<char>(random_.between(1, 255)));
  }
}

uint64_t Link::draw_delay() {
  uint64_t delay = settings_.delay_ns;
  if (settings_.jitter_ns > 0) delay += random_.between(0, settings_.jitter_ns);
  if (random_.chance(settings_.reorder)) delay += random_.between(0, settings_.reorder_ns);
  return delay;
}

uint64_t Link::draw_arrival(uint64_t departure) {
  const uint64_t arrival = departure + draw_delay();
  return settings_.in_order ? std::max(arrival, last_due()) : arrival;
}

std::optional<std::string> Link::receive(uint64_t now) {
  if (next_due() > now) return std::nullopt;
  std::string first = std::move(on_the_way_.begin()->second);
  on_the_way_.erase(on_the_way_.begin());
  return first;
}

void Link::heal(uint64_t delay_ns) {
  settings_ = LinkSettings();
  settings_.delay_ns = delay_ns;
  in_burst_ = false;
}

}  // namespace tarn_sim
