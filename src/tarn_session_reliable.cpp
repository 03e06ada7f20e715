// TarnSession: the reliable channel.
#include <limits.h>
#include <string.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "src/datagram_buffer.h"
#include "src/tarn_config.h"
#include "src/tarn_log.h"
#include "src/tarn_session.h"
#include "src/wire_format.h"

// A message that is sent in pieces, under a run of numbers.
struct TarnSession::Fragments {
  Bytes message;
  size_t max_size;
  unsigned short first;

  // What the fragments before `index` leave of it.
  Bytes rest(size_t index) const {
    const size_t taken = index * max_size;
    return Bytes{message.data + taken, message.size - taken};
  }
  Fragment at(size_t index) const {
    const Bytes left = rest(index);
    const Bytes payload{left.data, std::min(left.size, max_size)};
    const unsigned char flag = index == 0 ? wire::kFirst : wire::kMiddle;
    return Fragment{static_cast<unsigned short>(first + index),
                    payload.size == left.size ? wire::kLast : flag, payload};
  }
};

TarnSession::Bytes TarnSession::send_message(Bytes message, unsigned char flag) {
  if (stopped_) return message;
  const size_t max_size = std::min(static_cast<size_t>(mss_), wire::kMaxReliablePayload);
  if (message.size > max_size) return send_fragments(message, max_size);
  SegmentNode segment = send_window_.pool().take(wire::kReliableHeadSize + message.size);
  unsigned short seq = 0;
  if (take_seqs(1, seq)) send_segment(Fragment{seq, flag, message}, std::move(segment));
  return message;
}

bool TarnSession::take_seqs(size_t count, unsigned short& first) {
  const oxutils::scoped_lock hold(state_mutex_);
  if (stopped_) return false;
  first = send_seq_;
  send_seq_ = static_cast<unsigned short>(first + count);
  return true;
}

// The numbers are reserved at once: a message's fragments have to follow each other, whatever other
// threads, or callbacks of this one, send in between. What the window may keep of it has its memory
// by then, since a number that is taken and never sent holds up the stream for ever.
TarnSession::Bytes TarnSession::send_fragments(Bytes message, size_t max_size) {
  if (max_size == 0) {
    TARN_LOG_ERROR("tarn %p cannot send reliable len %lu with mtu 0", static_cast<void*>(this),
                   static_cast<unsigned long>(message.size));
    return message;
  }
  const size_t count = (message.size + max_size - 1) / max_size;
  const size_t kept = std::min<size_t>(count, TarnConfig::instance()->send_window_size);
  const size_t segment_size = wire::kReliableHeadSize + max_size;
  std::vector<SegmentNode> segments = send_window_.pool().take(kept, segment_size);
  unsigned short first = 0;
  if (!take_seqs(count, first)) return message;
  const Fragments fragments{message, max_size, first};
  size_t index = 0;
  bool goes_on = true;
  try {
    for (; goes_on && index < count; ++index) {
      // More are kept than fit into the window at a time: it is acknowledged meanwhile.
      if (segments.empty()) segments.push_back(send_window_.pool().take(segment_size));
      goes_on = send_segment(fragments.at(index), std::move(segments.back()));
      segments.pop_back();
    }
  } catch (...) {
    // A callback has thrown in the middle of the message: the re-sends bring what did not leave.
    while (++index < count && segments.size() > 1) {
      segments.pop_back();  // of the fragment before
      const Fragment fragment = fragments.at(index);
      write_segment(segments.back().mapped(), fragment);
      send_window_.write(fragment.seq, std::move(segments.back()));
    }
    throw;
  }
  return fragments.rest(std::min(index, count - 1));
}

void TarnSession::write_segment(SegmentBytes& segment, const Fragment& fragment) {
  const Bytes payload = fragment.payload;
  segment.truncate(wire::kReliableHeadSize + payload.size);
  wire::put_reliable_head(segment.data(), fragment.seq, fragment.flag, payload.size);
  if (payload.size > 0)
    memcpy(segment.data() + wire::kReliableHeadSize, payload.data, payload.size);
}

bool TarnSession::send_segment(const Fragment& fragment, SegmentNode&& node) {
  SegmentBytes& segment = node.mapped();
  write_segment(segment, fragment);
  try {
    // Out first, stored after: a packet that meets a full window has still been sent once.
    emit(Bytes{segment.data(), segment.size()}, Bytes{nullptr, 0}, kWithFeedback, kTested);
    TARN_LOG_VERBOSE("tarn %p send reliable seq %u len %lu", static_cast<void*>(this), fragment.seq,
                     static_cast<unsigned long>(fragment.payload.size));
  } catch (...) {
    // Its number is taken: without it the stream would never go on.
    send_window_.write(fragment.seq, std::move(node));
    throw;
  }
  if (!send_window_.write(fragment.seq, std::move(node))) overflow();
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
