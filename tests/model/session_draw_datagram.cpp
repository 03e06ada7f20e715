#include "tests/model/model_feedback.h"
#include "tests/model/session_draw.h"

namespace tarn_model {
namespace {

uint16_t at(int64_t number) { return static_cast<uint16_t>(number); }

uint16_t draw_received_seq(Random& random, const ModelRecvWindow& window) {
  const int next = window.started() ? window.last() + 1 : 0;
  const uint64_t dice = random.below(1000);
  if (!window.started() && dice < 100) return at(static_cast<int>(random.below(65536)));
  if (dice < 500) return at(next);
  if (dice < 800) return at(next + static_cast<int>(random.between(1, 8)));
  if (dice < 900 && window.started()) return at(next - static_cast<int>(random.between(1, 8)));
  if (dice < 950 && !window.waiting().empty()) {
    return window.waiting()[random.below(window.waiting().size())].seq;
  }
  if (dice < 970 && window.started())
    return at(next + static_cast<int>(random.between(32765, 32770)));
  return at(next + static_cast<int>(random.between(1, 60)));
}

uint16_t draw_acknowledged_seq(Random& random, const ModelSession& session) {
  const std::vector<uint16_t> kept = session.send_window().kept();
  const uint64_t dice = random.below(100);
  if (dice < 70 && !kept.empty()) return kept[random.below(kept.size())];
  if (dice < 85) return at(session.next_seq() - static_cast<int>(random.below(20)));
  if (dice < 93) return at(session.next_seq() + static_cast<int>(random.between(32740, 32770)));
  return at(static_cast<int64_t>(random.below(65536)));
}

std::string draw_reliable(Random& random, const ModelSession& session) {
  const unsigned flag = random.chance(60) ? 3 : static_cast<unsigned>(random.below(4));
  const size_t size = random.chance(2) ? random.below(2000) : random.below(12);
  const uint16_t seq = draw_received_seq(random, session.recv_window());
  return segment_bytes(0, flag, uint16_bytes(seq) + random.bytes(size));
}

std::string draw_acks(Random& random, const ModelSession& session) {
  std::string body;
  for (uint64_t i = random.between(1, 6); i > 0; --i) {
    body += uint16_bytes(draw_acknowledged_seq(random, session));
  }
  return segment_bytes(2, 3, body);
}

std::string draw_conv(Random& random, const ModelSession& session) {
  const uint32_t conv = random.chance(70) ? session.conv() : static_cast<uint32_t>(random.below(4));
  return segment_bytes(6, 3, uint32_bytes(conv));
}

// Any type and flag over a body of any size up to 8.
std::string draw_odd(Random& random) {
  const auto type = static_cast<unsigned>(random.chance(80) ? random.below(8) : random.below(64));
  return segment_bytes(type, static_cast<unsigned>(random.below(4)), random.bytes(random.below(9)));
}

std::string draw_segment(Random& random, const ModelSession& session) {
  const uint64_t dice = random.below(1000);
  if (dice < 600) return draw_reliable(random, session);
  if (dice < 700) return segment_bytes(1, 3, random.bytes(random.below(20)));
  if (dice < 800) return draw_acks(random, session);
  if (dice < 920) return segment_bytes(3, 3, uint16_bytes(draw_acknowledged_seq(random, session)));
  if (dice < 960) return draw_conv(random, session);
  if (dice < 970) return segment_bytes(4, 3, "");
  return draw_odd(random);
}

void damage(Random& random, std::string& datagram) {
  const uint64_t dice = random.below(100);
  if (dice < 40) {
    datagram[random.below(datagram.size())] ^= static_cast<char>(1u << random.below(8));
  } else if (dice < 80) {
    datagram.resize(random.below(datagram.size() + 1));
  } else {
    datagram += random.bytes(random.between(1, 5));
  }
}

}  // namespace

std::string draw_datagram(Random& random, const ModelSession& session) {
  // No datagram at all, often too short for one; it counts as activity all the same.
  if (random.chance(3)) return random.bytes(random.below(5));
  std::string datagram = random.chance(90) ? "$" : "#";
  datagram += random.chance(98) ? '\0' : static_cast<char>(random.below(256));
  for (uint64_t i = random.chance(70) ? 1 : random.below(5); i > 0; --i) {
    datagram += draw_segment(random, session);
  }
  if (random.chance(8)) damage(random, datagram);
  return datagram;
}

}  // namespace tarn_model
