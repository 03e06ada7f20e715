#include "tests/model/model_feedback.h"

#include <algorithm>
#include <cmath>

namespace tarn_model {

std::string uint16_bytes(uint64_t value) {
  return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

std::string uint32_bytes(uint32_t value) {
  return uint16_bytes(value >> 16) + uint16_bytes(value & 0xFFFF);
}

std::string segment_bytes(unsigned type, unsigned flag, const std::string& body) {
  return std::string(1, static_cast<char>(type * 4 + flag)) + uint16_bytes(body.size()) + body;
}

// Below 3 the difference wraps around to no limit but the segment's own: 16 bits of length.
uint64_t ack_limit(uint64_t budget) {
  const double limit = std::floor(static_cast<double>(budget - 3) * 0.5);
  return static_cast<uint64_t>(std::min(limit, 32767.0));
}

ModelFeedback take_feedback(ModelRecvWindow& window, uint64_t budget, Trace* trace) {
  ModelFeedback feedback;
  if (budget < 6) return feedback;
  uint16_t una = 0;
  if (window.take_una(una)) {
    if (trace != nullptr) log(*trace, 4, "tarn %s feedback una %u", kSession, una);
    feedback.una = segment_bytes(3, 3, uint16_bytes(una));
    budget -= 5;
  }
  std::vector<uint16_t> acks;
  if (window.take_acks(acks, ack_limit(budget))) {
    std::string body;
    for (const uint16_t seq : acks) {
      body += uint16_bytes(seq);
      if (trace != nullptr) log(*trace, 4, "tarn %s feedback ack %u", kSession, seq);
    }
    feedback.acks = segment_bytes(2, 3, body);
  }
  return feedback;
}

}  // namespace tarn_model
