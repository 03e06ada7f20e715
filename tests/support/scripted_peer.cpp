#include "tests/support/scripted_peer.h"

#include <gtest/gtest.h>

#include <memory>

namespace tarn_test {
namespace {

void put16(Bytes& out, unsigned value) {
  out.push_back(static_cast<unsigned char>(value >> 8));
  out.push_back(static_cast<unsigned char>(value));
}

uint16_t get16(const Bytes& in, size_t at) {
  return static_cast<uint16_t>(in.at(at) << 8 | in.at(at + 1));
}

void put(Bytes& out, const Bytes& more) { out.insert(out.end(), more.begin(), more.end()); }

}  // namespace

uint16_t WireSegment::seq() const { return get16(body, 0); }

Bytes WireSegment::payload() const { return Bytes(body.begin() + 2, body.end()); }

std::vector<uint16_t> WireSegment::numbers() const {
  std::vector<uint16_t> out;
  for (size_t at = 0; at + 1 < body.size(); at += 2) out.push_back(get16(body, at));
  return out;
}

Bytes lying_segment(int type, int flag, unsigned length, const Bytes& body) {
  Bytes out{static_cast<unsigned char>(type * 4 + flag)};
  put16(out, length);
  put(out, body);
  return out;
}

Bytes segment(int type, int flag, const Bytes& body) {
  return lying_segment(type, flag, static_cast<unsigned>(body.size()), body);
}

Bytes reliable(uint16_t seq, const Bytes& payload, int flag) {
  Bytes body;
  put16(body, seq);
  put(body, payload);
  return segment(kReliable, flag, body);
}

Bytes unreliable(const Bytes& payload) { return segment(kUnreliable, 3, payload); }

Bytes ack(const std::vector<uint16_t>& numbers) {
  Bytes body;
  for (const uint16_t number : numbers) put16(body, number);
  return segment(kAck, 3, body);
}

Bytes una(uint16_t number) {
  Bytes body;
  put16(body, number);
  return segment(kUna, 3, body);
}

Bytes bye() { return segment(kBye, 3, {}); }

Bytes conv(uint32_t id) {
  Bytes body;
  put16(body, id >> 16);
  put16(body, id & 0xFFFF);
  return segment(kConv, 3, body);
}

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) put(out, part);
  return out;
}

Bytes datagram(std::initializer_list<Bytes> segments) {
  Bytes out{'$', 0};
  put(out, concat(segments));
  return out;
}

std::vector<WireSegment> segments_of(const Bytes& sent) {
  std::vector<WireSegment> out;
  if (sent.size() < 2 || sent[0] != '$' || sent[1] != 0) {
    ADD_FAILURE() << "a datagram of " << sent.size() << " bytes without the header";
    return out;
  }
  size_t at = 2;
  while (at < sent.size()) {
    if (at + 3 > sent.size() || at + 3 + get16(sent, at + 1) > sent.size()) {
      ADD_FAILURE() << "a segment at " << at << " that does not end within " << sent.size();
      return out;
    }
    const auto body = sent.begin() + static_cast<std::ptrdiff_t>(at) + 3;
    const uint16_t length = get16(sent, at + 1);
    out.push_back({sent[at] >> 2, sent[at] & 3, Bytes(body, body + length)});
    at += 3u + length;
  }
  return out;
}

std::vector<WireSegment> segments_of_type(const std::vector<Bytes>& sent, int type) {
  std::vector<WireSegment> out;
  for (const Bytes& one : sent) {
    for (const WireSegment& found : segments_of(one)) {
      if (found.type == type) out.push_back(found);
    }
  }
  return out;
}

void feed(void* session, const Bytes& bytes) {
  const std::unique_ptr<char[]> copy(new char[bytes.size()]);
  for (size_t i = 0; i < bytes.size(); ++i) copy[i] = static_cast<char>(bytes[i]);
  tarn_input(session, copy.get(), static_cast<int>(bytes.size()));
}

}  // namespace tarn_test
