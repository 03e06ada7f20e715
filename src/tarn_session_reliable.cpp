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
#include "src/tarn_session_segments.h"
#include "src/wire_format.h"

TarnSession::Bytes TarnSession::send_message(Bytes message, unsigned char flag) {
  if (course_ != kPlain && !begin_message(message)) return message;
  const size_t max_size = segment_size();
  if (message.size > max_size) return send_fragments(message, max_size);
  SegmentNode segment = send_window_.pool().take(wire::kReliableHeadSize + message.size);
  unsigned short seq = 0;
  if (!take_seqs(1, seq)) return send_message(message, flag);
  if (!send_segment(Fragment{seq, flag, message}, std::move(segment))) adopt(seq);
  return message;
}

bool TarnSession::take_seqs(size_t count, unsigned short& first) {
  const oxutils::scoped_lock hold(state_mutex_);
  if ((course_ & kNotPlain) != 0) return false;
  first = send_seq_;
  send_seq_ = static_cast<unsigned short>(first + count);
  return true;
}

// The numbers are reserved at once: a message's fragments have to follow each other, whatever other
// threads, or callbacks of this one, send in between. What the window may keep of it has its memory
// by then, since a number that is taken and never sent holds up the stream for ever.
TarnSession::Bytes TarnSession::send_fragments(Bytes message, size_t max_size) {
  if (max_size == 0) {
    log_no_mtu(message);
    return message;
  }
  const size_t count = (message.size + max_size - 1) / max_size;
  const size_t kept = std::min<size_t>(count, send_window_.limit());
  const size_t bytes = wire::kReliableHeadSize + max_size;
  std::vector<SegmentNode> segments = send_window_.pool().take(kept, bytes);
  unsigned short first = 0;
  if (!take_seqs(count, first)) return send_message(message, wire::kWhole);
  const Fragments fragments{message, max_size, first};
  size_t index = 0;
  bool goes_on = true;
  try {
    for (; goes_on && index < count; ++index) {
      // More are kept than fit into the window at a time: it is acknowledged meanwhile.
      if (segments.empty()) segments.push_back(send_window_.pool().take(bytes));
      const Fragment fragment = fragments.at(index);
      goes_on = send_segment(fragment, std::move(segments.back())) || adopt(fragment.seq);
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
    log_sent(fragment);
  } catch (...) {
    // Its number is taken: without it the stream would never go on.
    send_window_.write(fragment.seq, std::move(node));
    throw;
  }
  if (!send_window_.write(fragment.seq, std::move(node))) {
    if ((course_ & kControlled) == 0) {
      overflow();
    } else {
      keep_past_limit(fragment);
    }
  }
  return active_unless<kNotPlain>();
}

void TarnSession::log_no_mtu(Bytes message) const {
  TARN_LOG_ERROR("tarn %p cannot send reliable len %lu with mtu 0", static_cast<const void*>(this),
                 static_cast<unsigned long>(message.size));
}

void TarnSession::overflow() {
  TARN_LOG_ERROR("tarn %p send window overflow size %lu", static_cast<void*>(this),
                 static_cast<unsigned long>(send_window_.count()));
  const auto callback = error_cb_.get();
  if (callback.function != nullptr) callback.function(TARN_ERROR_SEND_OVERFLOW, callback.user);
}

void TarnSession::resend(unsigned short seq, DataView packet, bool* keep) {
  const unsigned char course = this->course();
  if ((course & kNotPlain) != 0 && !begin_resend(course, seq)) {
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
  const unsigned short seq = read_seq(segment);
  if (!recv_window_.input(seq, segment, flag)) error(TARN_ERROR_RECV_REJECTED);
  return true;
}

void TarnSession::deliver_reliable(DataView message) {
  if ((course_ & kNotPlain) == 0 || begin_delivery(message)) hand_over(message);
}
