#include "tests/sim/datagram.h"

namespace tarn_sim {
namespace {

constexpr uint8_t kPlainFlag = 3;

uint32_t long_number_at(std::string_view bytes) {
  return static_cast<uint32_t>(number_at(bytes, 0)) << 16 | number_at(bytes, 2);
}

void put_number(std::string& bytes, uint16_t number) {
  bytes.push_back(static_cast<char>(number >> 8));
  bytes.push_back(static_cast<char>(number & 0xFF));
}

void put_segment(std::string& bytes, uint8_t type, uint8_t flag, std::string_view body) {
  bytes.push_back(static_cast<char>(type << 2 | flag));
  put_number(bytes, static_cast<uint16_t>(body.size()));
  bytes.append(body);
}

std::string numbers(const std::vector<uint16_t>& list) {
  std::string bytes;
  for (const uint16_t each : list) put_number(bytes, each);
  return bytes;
}

void put_una(std::string& bytes, const Emission& from) {
  if (from.una) put_segment(bytes, Segment::kUna, kPlainFlag, numbers({*from.una}));
}

void put_acks(std::string& bytes, const Emission& from) {
  if (from.acks) put_segment(bytes, Segment::kAck, kPlainFlag, numbers(*from.acks));
}

bool read_segment(const Segment& segment, Emission& into) {
  switch (segment.type) {
    case Segment::kConv:
      if (segment.body.size() != 4) return false;
      into.conv = long_number_at(segment.body);
      return true;
    case Segment::kUna:
      if (segment.body.size() != 2) return false;
      into.una = number_at(segment.body, 0);
      return true;
    case Segment::kAck: {
      std::vector<uint16_t> acks;
      for (size_t at = 0; at + 1 < segment.body.size(); at += 2) {
        acks.push_back(number_at(segment.body, at));
      }
      into.acks = std::move(acks);
      return true;
    }
    case Segment::kReliable:
      if (segment.body.size() < 2) return false;
      into.kind = Emission::Kind::kReliable;
      into.seq = number_at(segment.body, 0);
      into.flag = segment.flag;
      into.payload = segment.body.substr(2);
      return true;
    case Segment::kUnreliable:
      into.kind = Emission::Kind::kUnreliable;
      into.payload = segment.body;
      return true;
    default:
      return false;
  }
}

}  // namespace

uint16_t number_at(std::string_view bytes, size_t offset) {
  return static_cast<uint16_t>(static_cast<uint8_t>(bytes[offset]) << 8 |
                               static_cast<uint8_t>(bytes[offset + 1]));
}

std::vector<Segment> visible_segments(std::string_view bytes) {
  std::vector<Segment> segments;
  if (bytes.size() < 2 || (bytes[0] != '$' && bytes[0] != '#')) return segments;
  bytes.remove_prefix(2);
  while (bytes.size() >= 3) {
    const auto head = static_cast<uint8_t>(bytes[0]);
    const Segment segment{static_cast<uint8_t>(head >> 2), static_cast<uint8_t>(head & 3), {}};
    const bool known = segment.type <= Segment::kBye || segment.type == Segment::kConv;
    const size_t length = number_at(bytes, 1);
    if (!known || bytes.size() - 3 < length) break;
    segments.push_back(segment);
    segments.back().body = bytes.substr(3, length);
    bytes.remove_prefix(3 + length);
  }
  return segments;
}

std::optional<Emission> read_emission(std::string_view bytes) {
  Emission emission;
  for (const Segment& each : visible_segments(bytes)) {
    if (!read_segment(each, emission)) return std::nullopt;
  }
  // Whatever was left out, repeated, flagged or ordered otherwise shows here.
  if (write_emission(emission) != bytes) return std::nullopt;
  return emission;
}

std::string write_emission(const Emission& emission) {
  std::string bytes("$\0", 2);
  if (emission.conv) {
    std::string body;
    put_number(body, static_cast<uint16_t>(*emission.conv >> 16));
    put_number(body, static_cast<uint16_t>(*emission.conv));
    put_segment(bytes, Segment::kConv, kPlainFlag, body);
  }
  if (emission.kind == Emission::Kind::kFeedback) {
    put_acks(bytes, emission);
    put_una(bytes, emission);
    return bytes;
  }
  put_una(bytes, emission);
  put_acks(bytes, emission);
  if (emission.kind == Emission::Kind::kUnreliable) {
    put_segment(bytes, Segment::kUnreliable, kPlainFlag, emission.payload);
  } else {
    std::string body = numbers({emission.seq});
    body.append(emission.payload);
    put_segment(bytes, Segment::kReliable, emission.flag, body);
  }
  return bytes;
}

}  // namespace tarn_sim
