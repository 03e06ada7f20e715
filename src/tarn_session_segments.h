// TarnSession: what both ways of sending and of receiving do with reliable segments; inline, since
// each is a few instructions on the way of every segment.
#ifndef TARN_SRC_TARN_SESSION_SEGMENTS_H_
#define TARN_SRC_TARN_SESSION_SEGMENTS_H_

#include <limits.h>
#include <string.h>

#include <algorithm>

#include "src/datagram_buffer.h"
#include "src/tarn_log.h"
#include "src/tarn_session.h"
#include "src/tarn_timer.h"
#include "src/wire_format.h"

// A message that is sent in pieces of at most `max_size` bytes, under a run of numbers.
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
    const unsigned begins = index == 0 ? wire::kFirst : wire::kMiddle;
    const unsigned ends = payload.size == left.size ? wire::kLast : wire::kMiddle;
    return Fragment{static_cast<unsigned short>(first + index),
                    static_cast<unsigned char>(begins | ends), payload};
  }
};

template <unsigned char kExceptions>
bool TarnSession::active_unless() {
  const unsigned int now = TarnTimerQueue::cur_tick();
  const oxutils::scoped_lock hold(state_mutex_);
  if ((course_ & kExceptions) != 0) return false;
  last_active_ = now;
  return true;
}

inline size_t TarnSession::segment_size() const {
  return std::min(static_cast<size_t>(mss_), wire::kMaxReliablePayload);
}

inline void TarnSession::log_sent(const Fragment& fragment) const {
  TARN_LOG_VERBOSE("tarn %p send reliable seq %u len %lu", static_cast<const void*>(this),
                   fragment.seq, static_cast<unsigned long>(fragment.payload.size));
}

inline unsigned short TarnSession::read_seq(DataView& segment) const {
  const unsigned short seq = segment.read_uint16();
  TARN_LOG_DEBUG("tarn %p got reliable seq %u", static_cast<const void*>(this), seq);
  return seq;
}

__attribute__((always_inline)) inline void TarnSession::hand_over(DataView& message) {
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

// A handler logs what is wrong with its segment; the others of the datagram are handled all the
// same.
__attribute__((always_inline)) inline void TarnSession::dispatch(
    const DatagramReader::Segment& seg) {
  switch (seg.type) {
    case wire::kReliable: {
      Block block(seg.body, seg.size);
      DataView body = DataView::lend(block);
      got_reliable(body, seg.flag);
      break;
    }
    case wire::kUnreliable: {
      Block block(seg.body, seg.size);
      DataView body = DataView::lend(block);
      got_unreliable(body);
      break;
    }
    case wire::kAck:
      got_ack(Bytes{seg.body, seg.size});
      break;
    case wire::kUna:
      got_una(Bytes{seg.body, seg.size});
      break;
    case wire::kBye:
      got_bye();
      break;
    case wire::kHeartbeat:
      got_heartbeat();
      break;
    case wire::kConv:
      got_conv(Bytes{seg.body, seg.size});
      break;
    default:
      TARN_LOG_WARN("unkown seg type %u", seg.type);
      break;
  }
}

// Inlined so that the reader stays in registers.
template <void (TarnSession::*kHandler)(const DatagramReader::Segment&)>
__attribute__((always_inline)) inline void TarnSession::read_segments(DatagramReader& reader) {
  while (reader.has_segment()) {
    DatagramReader::Segment seg;
    if (!reader.read_segment(seg)) break;
    TARN_LOG_DEBUG("%p recv packet type: %u", static_cast<void*>(this), seg.type);
    (this->*kHandler)(seg);
  }
  if (reader.rest() > 0)
    TARN_LOG_WARN("redundant len %lu", static_cast<unsigned long>(reader.rest()));
}

#endif  // TARN_SRC_TARN_SESSION_SEGMENTS_H_
