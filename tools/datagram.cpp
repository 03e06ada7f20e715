#include "tools/datagram.h"

#include <fmt/format.h>

#include <utility>

namespace tarn_tool {
namespace {

unsigned byte_at(std::string_view bytes, std::size_t index) {
  return static_cast<unsigned char>(bytes[index]);
}

bool is_known(unsigned type) { return type <= kBye || type == kConv; }

}  // namespace

std::uint16_t read_u16(std::string_view bytes) {
  return static_cast<std::uint16_t>(byte_at(bytes, 0) << 8 | byte_at(bytes, 1));
}

std::uint32_t read_u32(std::string_view bytes) {
  return static_cast<std::uint32_t>(read_u16(bytes)) << 16 | read_u16(bytes.substr(2));
}

DatagramReader::DatagramReader(std::string_view datagram) : datagram_(datagram) {
  if (datagram.size() < kHeaderSize) {
    refuse(fmt::format("a header takes {} bytes, there are {}", kHeaderSize, datagram.size()));
  } else if (datagram[0] != '#' && datagram[0] != '$') {
    refuse(fmt::format("the magic is 0x{:02x}, not \"#\" or \"$\"", byte_at(datagram, 0)));
  } else {
    has_header_ = true;
    position_ = kHeaderSize;
  }
}

bool DatagramReader::refuse(std::string problem) {
  problem_ = std::move(problem);
  return false;
}

bool DatagramReader::next(Segment& segment) {
  if (!has_header_ || !problem_.empty() || rest() == 0) return false;
  const unsigned head = byte_at(datagram_, position_);
  if (rest() < kSegmentHeadSize) {
    return refuse(fmt::format("a segment head takes {} bytes, {} {} left", kSegmentHeadSize, rest(),
                              rest() == 1 ? "is" : "are"));
  }
  segment.offset = position_;
  segment.type = head >> 2;
  segment.flag = head & 3;
  if (!is_known(segment.type)) {
    return refuse(fmt::format("segment type {} is {}", segment.type,
                              segment.type == kHeartbeat ? "reserved" : "unknown"));
  }
  const std::size_t length = read_u16(datagram_.substr(position_ + 1));
  const std::size_t left = rest() - kSegmentHeadSize;
  if (length > left) {
    return refuse(fmt::format("the body is said to take {} bytes, {} {} left", length, left,
                              left == 1 ? "is" : "are"));
  }
  segment.body = datagram_.substr(position_ + kSegmentHeadSize, length);
  position_ += kSegmentHeadSize + length;
  return true;
}

std::string segment_problem(const Segment& segment) {
  const std::size_t size = segment.body.size();
  switch (segment.type) {
    case kReliable:
      return size > 2 ? "" : "a reliable segment needs a sequence number and at least one byte";
    case kUnreliable:
      return size > 0 ? "" : "an unreliable segment may not be empty";
    case kAckList:
      return size > 0 && size % 2 == 0 ? "" : "a list of acknowledgements takes 2, 4, 6 ... bytes";
    case kUna:
      return size == 2 ? "" : "a cumulative acknowledgement takes 2 bytes";
    case kConv:
      return size >= 4 ? "" : "a conversation id takes 4 bytes";
    default:
      return "";
  }
}

}  // namespace tarn_tool
