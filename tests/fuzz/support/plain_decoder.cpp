#include "tests/fuzz/support/plain_decoder.h"

namespace tarn_fuzz {
namespace {

constexpr unsigned kReliable = 0;
constexpr unsigned kConv = 6;

unsigned byte_at(const std::string& bytes, size_t at) {
  return static_cast<unsigned char>(bytes[at]);
}

bool is_header(const std::string& bytes) {
  return bytes.size() >= 2 && (bytes[0] == '$' || bytes[0] == '#');
}

}  // namespace

unsigned plain_uint16(const std::string& bytes, size_t at) {
  return byte_at(bytes, at) * 256 + byte_at(bytes, at + 1);
}

PlainDatagram decode(const std::string& bytes) {
  PlainDatagram datagram;
  datagram.has_header = is_header(bytes);
  if (!datagram.has_header) return datagram;
  size_t at = 2;
  while (bytes.size() - at >= 3) {
    PlainSegment segment;
    segment.type = byte_at(bytes, at) / 4;
    segment.flag = byte_at(bytes, at) % 4;
    const size_t length = plain_uint16(bytes, at + 1);
    if (segment.type == 5 || segment.type > 6 || bytes.size() - (at + 3) < length) {
      datagram.is_cut_off = true;
      return datagram;
    }
    segment.body = bytes.substr(at + 3, length);
    datagram.segments.push_back(segment);
    at += 3 + length;
  }
  return datagram;
}

int expected_check(const std::string& bytes) {
  const PlainDatagram datagram = decode(bytes);
  if (datagram.segments.empty()) return -1;
  const PlainSegment& first = datagram.segments.front();
  if (first.type != kReliable) return 1;
  if (first.body.size() < 2) return -1;
  return plain_uint16(first.body, 0) == 0 ? 0 : 1;
}

uint32_t expected_conv(const std::string& bytes) {
  const PlainDatagram datagram = decode(bytes);
  if (!datagram.has_header) return 0xFFFFFFFF;
  for (const PlainSegment& segment : datagram.segments) {
    if (segment.type != kConv) continue;
    if (segment.body.size() < 4) return 0;
    return plain_uint16(segment.body, 0) * 65536U + plain_uint16(segment.body, 2);
  }
  return 0;
}

}  // namespace tarn_fuzz
