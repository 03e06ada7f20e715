// TarnSession: the reliable channel.
#include <limits.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "src/tarn_log.h"
#include "src/tarn_session.h"
#include "src/wire_format.h"

void TarnSession::send_reliable(DataView& data, unsigned char flag) {
  if (is_stopped()) return;
  const auto max_size = std::min(static_cast<unsigned long>(mss_), wire::kMaxReliablePayload);
  const unsigned long size = data.size();
  if (size <= max_size) {
    send_segment(take_seqs(1), data, flag);
  } else if (max_size == 0) {
    TARN_LOG_ERROR("tarn %p cannot send reliable len %lu with mtu 0", static_cast<void*>(this),
                   size);
  } else {
    send_fragments(data, max_size);
  }
}

// Reserves a run of numbers; returns the first.
unsigned short TarnSession::take_seqs(unsigned long count) {
  const oxutils::scoped_lock hold(seq_mutex_);
  const unsigned short first = send_seq_;
  send_seq_ = static_cast<unsigned short>(first + count);
  return first;
}

// The numbers are reserved at once: a message's fragments have to follow each other, whatever other
// threads, or callbacks of this one, send in between.
void TarnSession::send_fragments(DataView& data, unsigned long max_size) {
  unsigned short seq = take_seqs((data.size() + max_size - 1) / max_size);
  unsigned char flag = wire::kFirst;
  while (data.size() > max_size) {
    DataView fragment = data.slice(max_size);
    send_segment(seq++, fragment, flag);
    if (is_stopped()) return;
    flag = wire::kMiddle;
  }
  send_segment(seq, data, wire::kLast);
}

void TarnSession::send_segment(unsigned short seq, DataView& payload, unsigned char flag) {
  const Bytes bytes = bytes_of(payload);
  char head[wire::kReliableHeadSize];
  wire::put_reliable_head(head, seq, flag, bytes.size);
  std::vector<char> segment;
  segment.reserve(sizeof head + bytes.size);
  segment.insert(segment.end(), head, head + sizeof head);
  segment.insert(segment.end(), bytes.data, bytes.data + bytes.size);
  DataView packet(std::move(segment));

  // Out first, stored after: a packet that meets a full window has still been sent once.
  emit(bytes_of(packet), Bytes{nullptr, 0}, false);
  TARN_LOG_VERBOSE("tarn %p send reliable seq %u len %lu", static_cast<void*>(this), seq,
                   bytes.size);
  if (!send_window_.write(seq, std::move(packet))) {
    TARN_LOG_ERROR("tarn %p send window overflow size %lu", static_cast<void*>(this),
                   static_cast<unsigned long>(send_window_.count()));
    const auto callback = error_cb_.get();
    if (callback.function != nullptr) callback.function(TARN_ERROR_SEND_OVERFLOW, callback.user);
  }
  active();
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
  if (is_stopped()) return;
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
  callback.function(message.data(), static_cast<int>(size), callback.user);
}
