// TarnSession: the format of header, segments and conversation id.
#include "oxutils/assert.h"
#include "src/tarn_log.h"
#include "src/tarn_session.h"
#include "src/wire_format.h"

namespace {

constexpr int kNotAPacket = -1;
constexpr int kStartsConversation = 0;
constexpr int kBelongsToConversation = 1;

DatagramReader reader_of(DataView& view) {
  const size_t size = view.size();
  return size > 0 ? DatagramReader(view.data(), size) : DatagramReader(nullptr, 0);
}

}  // namespace

bool TarnSession::parse_head(DataView& view, char& magic, unsigned char& version) {
  DatagramReader reader = reader_of(view);
  const size_t size = reader.rest();
  const bool is_head = reader.read_head(magic, version);
  if (reader.rest() < size) view.consume_front(size - reader.rest());
  return is_head;
}

bool TarnSession::parse_segment(DataView& view, Segment& seg) {
  DatagramReader reader = reader_of(view);
  const size_t size = reader.rest();
  DatagramReader::Segment read;
  const bool is_segment = reader.read_segment(read);
  if (reader.rest() < size) {
    view.consume_front(size - reader.rest() - read.size);
    seg.type = read.type;
    seg.flag = read.flag;
  }
  if (is_segment) seg.data = view.slice(read.size);
  return is_segment;
}

void TarnSession::make_seg_head(DataView& data_view, unsigned char type, unsigned char flag,
                                unsigned long length) {
  OX_ASSERT("src/tarn_session", __LINE__, data_view.size() >= 3);
  wire::put_seg_head(data_view.data(), type, flag, length);
}

void TarnSession::make_seg_head_nocp(char* buf, int len, unsigned char type, unsigned char flag,
                                     unsigned long length) {
  OX_ASSERT("src/tarn_session", __LINE__, len >= 3);
  wire::put_seg_head(buf, type, flag, length);
}

int TarnSession::check_packet(char* data, int len) {
  if (len < 1) return kNotAPacket;
  DatagramReader reader(data, static_cast<size_t>(len));
  char magic = 0;
  unsigned char version = 0;
  DatagramReader::Segment first;
  if (!reader.read_head(magic, version) || !reader.read_segment(first)) return kNotAPacket;
  if (first.type != wire::kReliable) return kBelongsToConversation;
  if (first.size < wire::kSeqSize) return kNotAPacket;
  return wire::get_uint16(first.body) == 0 ? kStartsConversation : kBelongsToConversation;
}

unsigned int TarnSession::read_conv(char* data, int len) {
  DatagramReader reader(data, len > 0 ? static_cast<size_t>(len) : 0);
  char magic = 0;
  unsigned char version = 0;
  if (!reader.read_head(magic, version)) return wire::kNoPacket;
  while (reader.has_segment()) {
    DatagramReader::Segment seg;
    if (!reader.read_segment(seg)) break;
    if (seg.type != wire::kConv) continue;
    return seg.size < wire::kConvBodySize ? 0 : wire::get_uint32(seg.body);
  }
  return 0;
}

bool TarnSession::got_conv(Bytes body) {
  if (body.size < wire::kConvBodySize) {
    TARN_LOG_ERROR("error conv size %lu", static_cast<unsigned long>(body.size));
    return false;
  }
  const unsigned int received = wire::get_uint32(body.data);
  TARN_LOG_VERBOSE("tarn %p got conv %lu", static_cast<void*>(this),
                   static_cast<unsigned long>(received));
  const unsigned int local = conv_;
  if (local == 0) {
    conv_ = received;
  } else if (local != received) {
    // Reported only; whoever routes by conv does so before the datagram comes here.
    TARN_LOG_WARN("tarn %p error conv local %lu recv %lu", static_cast<void*>(this),
                  static_cast<unsigned long>(local), static_cast<unsigned long>(received));
  }
  return true;
}
