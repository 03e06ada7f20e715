#ifndef TARN_TOOLS_DATAGRAM_H_
#define TARN_TOOLS_DATAGRAM_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace tarn_tool {

// A reading of Tarn's datagrams from plain bytes, apart from the library's own.
//
//   0      1        2           3       5
//   +------+--------+-----------+-------+----------+-----------+--- ...
//   | '$'  | ver. 0 | type flag |length |   body   | type flag |
//   +------+--------+-----------+-------+----------+-----------+--- ...
//
// The upper six bits of a segment's first byte are its type, the lower two its flag. Numbers are
// big-endian.
constexpr std::size_t kHeaderSize = 2;
constexpr std::size_t kSegmentHeadSize = 3;

enum SegmentType : unsigned {
  kReliable = 0,
  kUnreliable = 1,
  kAckList = 2,
  kUna = 3,
  kBye = 4,
  kHeartbeat = 5,
  kConv = 6
};

// Position of a reliable segment in its message.
enum SegmentFlag : unsigned { kMiddle = 0, kLast = 1, kFirst = 2, kWhole = 3 };

std::uint16_t read_u16(std::string_view bytes);  // Requires: two bytes
std::uint32_t read_u32(std::string_view bytes);  // Requires: four bytes

struct Segment {
  std::size_t offset = 0;  // of its first byte in the datagram
  unsigned type = 0;
  unsigned flag = 0;
  std::string_view body;  // into the datagram
};

// Walks the segments of one datagram. The bytes must outlive the walk.
class DatagramReader {
 public:
  explicit DatagramReader(std::string_view datagram);

  // False when the header refuses the whole datagram; problem() says why.
  bool has_header() const { return has_header_; }
  char magic() const { return datagram_[0]; }  // Requires: has_header()
  unsigned version() const { return static_cast<unsigned char>(datagram_[1]); }  // likewise

  // The next segment. False at the end, with an empty problem(), and where the rest is refused.
  bool next(Segment& segment);

  // Why reading ended early, as a clause: "the magic is 0x41, not \"#\" or \"$\"".
  const std::string& problem() const { return problem_; }
  // Bytes that no segment has claimed so far.
  std::size_t rest() const { return datagram_.size() - position_; }
  std::size_t position() const { return position_; }

 private:
  bool refuse(std::string problem);

  std::string_view datagram_;
  std::size_t position_ = 0;
  bool has_header_ = false;
  std::string problem_;
};

// Why a session would ignore `segment`, whose frame is sound; empty when it would not.
std::string segment_problem(const Segment& segment);

}  // namespace tarn_tool

#endif  // TARN_TOOLS_DATAGRAM_H_
