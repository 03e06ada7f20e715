// The other end of a conversation, byte by byte: builds the datagrams that a peer sends and takes
// apart those that a session sends. Shares no code with the library, so that a mistake there is not
// repeated here.
//
//   datagram:  '$'  0  segment segment ...
//   segment:   type * 4 + flag | length, 2 bytes, high first | body of `length` bytes
#ifndef TARN_TESTS_SUPPORT_SCRIPTED_PEER_H_
#define TARN_TESTS_SUPPORT_SCRIPTED_PEER_H_

#include <cstdint>
#include <initializer_list>
#include <vector>

#include "tests/support/datagram_recorder.h"

namespace tarn_test {

enum SegmentType {
  kReliable = 0,
  kUnreliable = 1,
  kAck = 2,
  kUna = 3,
  kBye = 4,
  kHeartbeat = 5,
  kConv = 6
};

// Fragment position of a reliable segment.
enum Fragment { kMiddle = 0, kLast = 1, kFirst = 2, kWhole = 3 };

struct WireSegment {
  int type;
  int flag;
  Bytes body;

  // The number in a una segment, or at the start of a reliable one.
  uint16_t seq() const;
  // What follows the number of a reliable segment.
  Bytes payload() const;
  // The numbers of an ack segment.
  std::vector<uint16_t> numbers() const;
};

// A segment of any type whose length field tells the truth, and one that says `length` instead.
Bytes segment(int type, int flag, const Bytes& body);
Bytes lying_segment(int type, int flag, unsigned length, const Bytes& body);

Bytes reliable(uint16_t seq, const Bytes& payload, int flag = kWhole);
Bytes unreliable(const Bytes& payload);
Bytes ack(const std::vector<uint16_t>& numbers);
Bytes una(uint16_t number);
Bytes bye();
Bytes conv(uint32_t id);

Bytes datagram(std::initializer_list<Bytes> segments);
Bytes concat(std::initializer_list<Bytes> parts);

// The segments of a datagram that a session sent. Fails the running test if the datagram is not
// well formed to its last byte.
std::vector<WireSegment> segments_of(const Bytes& sent);
// Those of one type, over many datagrams.
std::vector<WireSegment> segments_of_type(const std::vector<Bytes>& sent, int type);

// Hands bytes to tarn_input() from a copy of exactly their size, so that a read past the end is
// seen by the address sanitizer.
void feed(void* session, const Bytes& bytes);

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_SCRIPTED_PEER_H_
