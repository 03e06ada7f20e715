// TarnSession: the format of header, segments and conversation id.
#include "oxutils/assert.h"
#include "src/tarn_log.h"
#include "src/tarn_session.h"
#include "src/wire_format.h"

namespace {

constexpr int kNotAPacket = -1;
constexpr int kStartsConversation = 0;
constexpr int kBelongsToConversation = 1;

bool is_known(unsigned char type) {
  return type <= wire::kBye || type == wire::kConv;  // kHeartbeat is refused
}

}  // namespace

bool TarnSession::parse_head(DataView& view, char& magic, unsigned char& version) {
  const unsigned long size = view.size();
  if (size < wire::kHeaderSize) {
    TARN_LOG_VERBOSE("error tarn header len %lu", size);
    return false;
  }
  magic = view.read_char();
  if (magic != wire::kMagic && magic != wire::kOtherMagic) {
    TARN_LOG_VERBOSE("error magic %c", magic);
    return false;
  }
  version = view.read_uint8();
  // Reported only, so that packets of a later version still flow.
  if (version != wire::kVersion) TARN_LOG_WARN("not match version %u", version);
  return true;
}

bool TarnSession::parse_segment(DataView& view, Segment& seg) {
  const unsigned long size = view.size();
  if (size < 2) {
    TARN_LOG_WARN("error tarn segment len %lu", size);
    return false;
  }
  const unsigned char head = view.read_uint8();
  seg.type = head >> wire::kTypeShift;
  seg.flag = head & wire::kFlagMask;
  if (!is_known(seg.type)) {
    TARN_LOG_WARN("error segment type %u", seg.type);
    return false;
  }
  if (size < wire::kSegHeadSize) {
    TARN_LOG_WARN("error tarn segment len %lu", size);
    return false;
  }
  const unsigned short length = view.read_uint16();
  if (view.size() < length) {
    TARN_LOG_WARN("error segment len %u", length);
    return false;
  }
  seg.data = view.slice(length);
  return true;
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
  Block block(data, static_cast<unsigned long>(len));
  DataView view = DataView::lend(block);
  char magic = 0;
  unsigned char version = 0;
  Segment first;
  if (!parse_head(view, magic, version) || !parse_segment(view, first)) return kNotAPacket;
  if (first.type != wire::kReliable) return kBelongsToConversation;
  if (first.data.size() < wire::kSeqSize) return kNotAPacket;
  return first.data.read_uint16() == 0 ? kStartsConversation : kBelongsToConversation;
}

unsigned int TarnSession::read_conv(char* data, int len) {
  Block block(data, len > 0 ? static_cast<unsigned long>(len) : 0);
  DataView view = DataView::lend(block);
  char magic = 0;
  unsigned char version = 0;
  if (!parse_head(view, magic, version)) return wire::kNoPacket;
  while (view.size() >= wire::kSegHeadSize) {
    Segment seg;
    if (!parse_segment(view, seg)) break;
    if (seg.type != wire::kConv) continue;
    return seg.data.size() < wire::kConvBodySize ? 0 : seg.data.read_uint32();
  }
  return 0;
}

void TarnSession::make_conv(DataView& conv_seg) const {
  const unsigned int conv = conv_;
  if (conv == 0) return;
  conv_seg = DataView(wire::kConvSegSize);
  wire::put_conv_segment(conv_seg.data(), conv);
}

bool TarnSession::got_conv(DataView& body) {
  if (body.size() < wire::kConvBodySize) {
    TARN_LOG_ERROR("error conv size %lu", body.size());
    return false;
  }
  const unsigned int received = body.read_uint32();
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
