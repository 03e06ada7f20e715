// TarnSession: the reliable channel.
#include <limits.h>
#include <string.h>

#include <algorithm>
#include <utility>

#include "src/datagram_buffer.h"
#include "src/tarn_log.h"
#include "src/tarn_session.h"
#include "src/wire_format.h"

void TarnSession::send_reliable(DataView& data, unsigned char flag) {
  const Bytes message = bytes_of(data);
  const size_t sent = message.size - send_message(message, flag).size;
  if (sent > 0) data.consume_front(sent);
}

TarnSession::Bytes TarnSession::send_message(Bytes message, unsigned char flag) {
  const auto max_size = std::min(static_cast<unsigned long>(mss_), wire::kMaxReliablePayload);
  if (message.size > max_size) return send_fragments(message, max_size);
  unsigned short seq = 0;
  if (take_seqs(1, seq)) send_segment(seq, message, flag);
  return message;
}

bool TarnSession::take_seqs(unsigned long count, unsigned short& first) {
  const oxutils::scoped_lock hold(state_mutex_);
  if (stopped_) return false;
  first = send_seq_;
  send_seq_ = static_cast<unsigned short>(first + count);
  return true;
}

// The numbers are reserved at once: a message's fragments have to follow each other, whatever other
// threads, or callbacks of this one, send in between.
TarnSession::Bytes TarnSession::send_fragments(Bytes message, unsigned long max_size) {
  if (max_size == 0) {
    if (is_stopped()) return message;
    TARN_LOG_ERROR("tarn %p cannot send reliable len %lu with mtu 0", static_cast<void*>(this),
                   message.size);
    return message;
  }
  unsigned short seq = 0;
  if (!take_seqs((message.size + max_size - 1) / max_size, seq)) return message;
  unsigned char flag = wire::kFirst;
  while (message.size > max_size) {
    const Bytes fragment{message.data, max_size};
    message = Bytes{message.data + max_size, message.size - max_size};
    if (!send_segment(seq++, fragment, flag)) return message;
    flag = wire::kMiddle;
  }
  send_segment(seq, message, wire::kLast);
  return message;
}

bool TarnSession::send_segment(unsigned short seq, Bytes payload, unsigned char flag) {
  SegmentBytes segment = send_window_.make_segment(wire::kReliableHeadSize + payload.size);
  wire::put_reliable_head(segment.data(), seq, flag, payload.size);
  if (payload.size > 0) {
    memcpy(segment.data() + wire::kReliableHeadSize, payload.data, payload.size);
  }

  // Out first, stored after: a packet that meets a full window has still been sent once.
  emit(Bytes{segment.data(), segment.size()}, Bytes{nullptr, 0}, kWithFeedback, kTested);
  TARN_LOG_VERBOSE("tarn %p send reliable seq %u len %lu", static_cast<void*>(this), seq,
                   payload.size);
  if (!send_window_.write(seq, std::move(segment))) overflow();
  return active_unless_stopped();
}

void TarnSession::overflow() {
  TARN_LOG_ERROR("tarn %p send window overflow size %lu", static_cast<void*>(this),
                 static_cast<unsigned long>(send_window_.count()));
  const auto callback = error_cb_.get();
  if (callback.function != nullptr) callback.function(TARN_ERROR_SEND_OVERFLOW, callback.user);
}

void TarnSession::resend(unsigned short seq, DataView packet, bool* keep) {
  if (is_stopped()) {
    *keep = false;
    return;
  }
  TARN_LOG_INFO("tarn %p resend seq %u", static_cast<void*>(this), seq);
  output(std::move(packet), false);
}

bool TarnSession::got_reliable(DataView& segment, unsigned char flag) {
  if (segment.size() <= wire::kSeqSize) {
    TARN_LOG_ERROR("error reliable size %lu", segment.size());
    return false;
  }
  const unsigned short seq = segment.read_uint16();
  TARN_LOG_DEBUG("tarn %p got reliable seq %u", static_cast<void*>(this), seq);
  if (!recv_window_.input(seq, segment, flag)) error(TARN_ERROR_RECV_REJECTED);
  return true;
}

void TarnSession::recv_reliable(DataView message) {
  if (!is_stopped()) deliver_reliable(std::move(message));
}

void TarnSession::deliver_reliable(DataView message) {
  if (stopped_) return;
  const auto callback = recv_reliable_cb_.get();
  if (callback.function == nullptr) {
    TARN_LOG_WARN("tarn %p has no reliable callback", static_cast<void*>(this));
    return;
  }
  const unsigned long size = message.size();
  if (size > INT_MAX) {
    TARN_LOG_ERROR("tarn %p recv reliable len %lu too large", static_cast<void*>(this), size);
    return;
  }
  TARN_LOG_VERBOSE("tarn %p recv reliable len %lu", static_cast<void*>(this), size);
  const auto len = static_cast<int>(size);
  if (!message.is_lent()) {
    callback.function(message.data(), len, callback.user);
    return;
  }
  // The application may change its message, but not the datagram of whoever feeds the session.
  DatagramBuffer copy(size);
  memcpy(copy.data(), message.data(), size);
  callback.function(copy.data(), len, callback.user);
}
