// TarnSession: the unreliable channel.
#include <limits.h>

#include <utility>

#include "src/tarn_log.h"
#include "src/tarn_session.h"
#include "src/wire_format.h"

namespace {

// Bytes of the datagram around `len` bytes of payload.
size_t in_place_size(int len) { return static_cast<size_t>(len) + wire::kNocpPrefixSize; }

}  // namespace

void TarnSession::send_unreliable(DataView& data) {
  const unsigned char course = this->course();
  if (course != kPlain && !begin_unreliable(course)) return;
  const Bytes body = bytes_of(data);
  char head[wire::kSegHeadSize];
  wire::put_seg_head(head, wire::kUnreliable, wire::kNoFlag, body.size);
  emit(Bytes{head, sizeof head}, body, kWithFeedback, kTested);
  active();
}

void TarnSession::send_unreliable(char* buf, int len) {
  const unsigned char course = this->course();
  if (course != kPlain && !begin_in_place(course, len)) return;
  // Three less than the caller's length: that is what makes 6 the least one.
  make_seg_head_nocp(buf + wire::kNocpConvOffset, len - 3, wire::kConv, wire::kNoFlag,
                     wire::kConvBodySize);
  wire::put_header(buf);
  wire::put_uint32(buf + wire::kNocpConvOffset + wire::kSegHeadSize, conv_);
  make_seg_head_nocp(buf + wire::kNocpDataHeadOffset, len, wire::kUnreliable, wire::kNoFlag,
                     static_cast<unsigned long>(len));
  const auto callback = output_cb_.get();
  if (callback.function == nullptr) {
    TARN_LOG_WARN("tarn %p has no output callback", static_cast<void*>(this));
    return;
  }
  const size_t size = in_place_size(len);
  if (size > INT_MAX) {
    TARN_LOG_ERROR("tarn %p output size %lu too large", static_cast<void*>(this),
                   static_cast<unsigned long>(size));
    return;
  }
  TARN_LOG_VERBOSE("tarn %p output size %lu", static_cast<void*>(this),
                   static_cast<unsigned long>(size));
  callback.function(buf, static_cast<int>(size), callback.user);
}

// The datagram is counted with the message: nothing else tells of it.
bool TarnSession::begin_in_place(unsigned char course, int len) {
  if (!begin_unreliable(course)) return false;
  if ((course & kControlled) == 0 || output_cb_.get().function == nullptr) return true;
  return begin_datagram(course, in_place_size(len));
}

bool TarnSession::got_unreliable(DataView& body) {
  const unsigned long size = body.size();
  TARN_LOG_VERBOSE("tarn %p got unreliable len %lu", static_cast<void*>(this), size);
  if (size == 0) {
    TARN_LOG_ERROR("%p error unreliable size %lu", static_cast<void*>(this), size);
    return false;
  }
  deliver_unreliable(body);
  return true;
}

void TarnSession::deliver_unreliable(DataView& data) {
  if ((course_ & kNotPlain) != 0 && !begin_unreliable_delivery()) return;
  const auto callback = recv_unreliable_cb_.get();
  if (callback.function == nullptr) {
    TARN_LOG_WARN("tarn %p has no unreliable callback", static_cast<void*>(this));
    return;
  }
  const unsigned long size = data.size();
  TARN_LOG_VERBOSE("tarn %p recv unreliable len %lu", static_cast<void*>(this), size);
  callback.function(data.data(), static_cast<int>(size), callback.user);
}
