// A datagram, read and written by the simulator's own rules: none of this is the library's code.
#ifndef TARN_TESTS_SIM_DATAGRAM_H_
#define TARN_TESTS_SIM_DATAGRAM_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn_sim {

struct Segment {
  enum Type : uint8_t { kReliable = 0, kUnreliable = 1, kAck = 2, kUna = 3, kBye = 4, kConv = 6 };
  uint8_t type = 0;
  uint8_t flag = 0;
  std::string_view body;
};

// The segments that a receiver sees: those before the first one that is cut off or unknown. None
// when the two header bytes are not those of a datagram. The views point into `bytes`.
std::vector<Segment> visible_segments(std::string_view bytes);

uint16_t number_at(std::string_view bytes, size_t offset);

// What an end may emit, taken apart.
struct Emission {
  enum class Kind { kReliable, kUnreliable, kFeedback };
  Kind kind = Kind::kFeedback;
  std::optional<uint32_t> conv;
  std::optional<uint16_t> una;
  std::optional<std::vector<uint16_t>> acks;
  uint16_t seq = 0;  // reliable
  uint8_t flag = 0;  // reliable
  std::string_view payload;
};

// Nothing when the bytes are not, to the last one, what a session may emit: header, conversation
// id, feedback and data in their one order.
std::optional<Emission> read_emission(std::string_view bytes);
std::string write_emission(const Emission& emission);

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_DATAGRAM_H_
