// The layout of every datagram.
//
//   0        1        2
//   +--------+--------+---------+---------+----
//   | magic  | version| segment | segment | ...
//   | '$'    | 0      |         |         |
//   +--------+--------+---------+---------+----
//
// A segment:
//   0              1                3
//   +------+------+--------+-------+---- ... ----+
//   | type | flag | length         | body        |
//   | 6 bit| 2 bit| 16 bit         | length bytes|
//   +------+------+--------+-------+---- ... ----+
//
// Bodies: reliable data   seq (16 bit), payload
//         unreliable data payload
//         ack list        sequence numbers, 16 bit each
//         una             last sequence number delivered in order (16 bit)
//         bye             nothing
//         conv            conversation id (32 bit)
//
// Integers are unsigned and big-endian.
#ifndef TARN_SRC_WIRE_FORMAT_H_
#define TARN_SRC_WIRE_FORMAT_H_

#include <stddef.h>
#include <stdint.h>

namespace wire {

constexpr size_t kHeaderSize = 2;
constexpr char kMagic = '$';
constexpr char kOtherMagic = '#';  // accepted, never sent
constexpr unsigned char kVersion = 0;

constexpr size_t kSegHeadSize = 3;
constexpr size_t kSegLengthOffset = 1;
constexpr unsigned kTypeShift = 2;
constexpr unsigned char kFlagMask = 3;

enum SegmentType : unsigned char {
  kReliable = 0,
  kUnreliable = 1,
  kAck = 2,
  kUna = 3,
  kBye = 4,
  kHeartbeat = 5,  // reserved: never sent, refused when received
  kConv = 6,
};

// Place of a reliable segment in its message: bit 1 begins it, bit 0 ends it.
constexpr unsigned char kMiddle = 0;
constexpr unsigned char kLast = 1;
constexpr unsigned char kFirst = 2;
constexpr unsigned char kWhole = kFirst | kLast;
// Every other type is sent with this flag; receivers ignore it.
constexpr unsigned char kNoFlag = 3;

constexpr size_t kSeqSize = 2;
constexpr size_t kReliableHeadSize = kSegHeadSize + kSeqSize;
constexpr size_t kMaxBodySize = 0xFFFF;
constexpr size_t kMaxReliablePayload = kMaxBodySize - kSeqSize;
constexpr size_t kMaxAcks = kMaxBodySize / kSeqSize;

constexpr size_t kUnaSegSize = kSegHeadSize + kSeqSize;
constexpr size_t kConvBodySize = 4;
constexpr size_t kConvSegSize = kSegHeadSize + kConvBodySize;

// Prefix of a datagram that is built in the sender's own buffer: header, conv, unreliable head.
constexpr size_t kNocpConvOffset = kHeaderSize;
constexpr size_t kNocpDataHeadOffset = kNocpConvOffset + kConvSegSize;
constexpr size_t kNocpPrefixSize = kNocpDataHeadOffset + kSegHeadSize;

// read_conv's answer for bytes that are no datagram of this protocol.
constexpr uint32_t kNoPacket = 0xFFFFFFFF;

inline void put_uint16(char* at, uint16_t value) {
  at[0] = static_cast<char>(value >> 8);
  at[1] = static_cast<char>(value);
}

inline void put_uint32(char* at, uint32_t value) {
  put_uint16(at, static_cast<uint16_t>(value >> 16));
  put_uint16(at + 2, static_cast<uint16_t>(value));
}

inline uint16_t get_uint16(const char* at) {
  const auto high = static_cast<unsigned char>(at[0]);
  const auto low = static_cast<unsigned char>(at[1]);
  return static_cast<uint16_t>(high << 8 | low);
}

inline uint32_t get_uint32(const char* at) {
  return static_cast<uint32_t>(get_uint16(at)) << 16 | get_uint16(at + 2);
}

inline void put_header(char* at) {
  at[0] = kMagic;
  at[1] = kVersion;
}

// The length is cut to 16 bits.
inline void put_seg_head(char* at, unsigned char type, unsigned char flag, unsigned long length) {
  at[0] = static_cast<char>(type << kTypeShift | (flag & kFlagMask));
  put_uint16(at + kSegLengthOffset, static_cast<uint16_t>(length));
}

inline void put_conv_segment(char* at, uint32_t conv) {
  put_seg_head(at, kConv, kNoFlag, kConvBodySize);
  put_uint32(at + kSegHeadSize, conv);
}

inline void put_reliable_head(char* at, uint16_t seq, unsigned char flag, size_t payload) {
  put_seg_head(at, kReliable, flag, payload + kSeqSize);
  put_uint16(at + kSegHeadSize, seq);
}

}  // namespace wire

#endif  // TARN_SRC_WIRE_FORMAT_H_
