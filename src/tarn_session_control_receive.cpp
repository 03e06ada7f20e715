// TarnSession: receiving with a look at what may be taken.
#include <errno.h>

#include <utility>

#include "src/session_control.h"
#include "src/tarn_log.h"
#include "src/tarn_session.h"
#include "src/tarn_session_segments.h"
#include "src/wire_format.h"

namespace {

// Numbers further ahead of the last one in order are no peer's that keeps to a window.
constexpr unsigned short kMostAhead = 8192;

}  // namespace

void TarnSession::input_controlled(char* datagram, size_t size) {
  if (is_ended() || !is_of_this_conversation(datagram, size) || !active_unless<kStopped>()) return;
  SessionControl& control = this->control();
  control.on_received(size);
  if (!control.has_fed) {
    settle_counts();
    control.has_fed = true;
  }
  DatagramReader reader(datagram, size);
  char magic = 0;
  unsigned char version = 0;
  if (!reader.read_head(magic, version)) return;
  try {
    if (control.is_held_up) deliver_pending();
    read_segments<&TarnSession::dispatch_controlled>(reader);
  } catch (...) {
    // There may be nothing else that brings on what waits for room.
    settle_acknowledgements();
    throw;
  }
  settle_acknowledgements();
}

void TarnSession::dispatch_controlled(const DatagramReader::Segment& seg) {
  switch (seg.type) {
    case wire::kReliable:
      receive(seg);
      break;
    case wire::kAck:
      got_acks_controlled(seg);
      break;
    case wire::kUna:
      got_una_controlled(seg);
      break;
    default:
      dispatch(seg);
      break;
  }
}

// Without a line: what is wrong with the datagram is logged where it is used.
bool TarnSession::is_of_this_conversation(const char* datagram, size_t size) {
  if (control().options.get(TARN_OPTION_STRICT_CONV) == 0) return true;
  const unsigned int own = conv_;
  return own == 0 || DatagramReader::find_conv(datagram, size) == own;
}

void TarnSession::receive(const DatagramReader::Segment& seg) {
  Block block(seg.body, seg.size);
  DataView payload = DataView::lend(block);
  if (seg.size <= wire::kSeqSize) {
    got_reliable(payload, seg.flag);  // which says why not
    return;
  }
  SessionCounters& counters = control().counters;
  counters.segments_received.add();
  const unsigned short seq = read_seq(payload);
  switch (take_in(seq, payload, seg.flag)) {
    case RecvWindow::Arrival::kNew:
      break;
    case RecvWindow::Arrival::kRepeated:
      counters.segments_repeated.add();
      break;
    case RecvWindow::Arrival::kRefused:
      counters.segments_rejected.add();
      if (!control().is_message_too_large) error(TARN_ERROR_RECV_REJECTED);
      break;
  }
}

RecvWindow::Arrival TarnSession::take_in(unsigned short seq, DataView& payload,
                                         unsigned char flag) {
  SessionControl& control = this->control();
  if (control.is_message_too_large || is_far_ahead(seq)) return RecvWindow::Arrival::kRefused;
  RecvWindow::Arrival arrival = RecvWindow::Arrival::kRefused;
  bool is_more = true;
  ReceiveGate::Turn turn(control.gate);
  if (turn) {
    control.is_held_up = true;
    arrival = take_in_turn(seq, payload, flag);
    control.is_held_up = false;
    is_more = turn.end();
  } else {
    const size_t limit = recv_window_.limit();
    const size_t withheld = control.gate.withheld();
    arrival = recv_window_.hold_back(seq, payload, flag, limit > withheld ? limit - withheld : 0);
  }
  if (is_more) deliver_pending();
  return arrival;
}

RecvWindow::Arrival TarnSession::take_in_turn(unsigned short seq, DataView& payload,
                                              unsigned char flag) {
  if (recv_window_.is_next(seq) && is_too_large(recv_window_.staged_size() + payload.size())) {
    return RecvWindow::Arrival::kRefused;
  }
  const RecvWindow::Arrival arrival = recv_window_.look_up(seq);
  if (!recv_window_.input(seq, payload, flag)) return RecvWindow::Arrival::kRefused;
  is_too_large(recv_window_.staged_size());
  return arrival;
}

bool TarnSession::is_far_ahead(unsigned short seq) {
  if (!control().options.any()) return false;
  return recv_window_.ahead(seq) > kMostAhead;
}

// Raises the error the first time; nothing reliable is taken from then on.
bool TarnSession::is_too_large(uint64_t size) {
  SessionControl& control = this->control();
  const auto limit = static_cast<uint64_t>(control.options.get(TARN_OPTION_MAX_MESSAGE));
  if (limit == 0 || size <= limit) return false;
  if (!control.is_message_too_large) {
    control.is_message_too_large = true;
    TARN_LOG_ERROR("tarn %p recv reliable len %llu exceeds the maximum", static_cast<void*>(this),
                   static_cast<unsigned long long>(size));
    error(TARN_ERROR_MESSAGE_TOO_LARGE);
  }
  return true;
}

bool TarnSession::begin_delivery(DataView& message) {
  if (is_ended()) return false;
  SessionControl& control = this->control();
  const unsigned short last = recv_window_.last();
  const auto segments = static_cast<unsigned short>(last - control.last_told);
  control.last_told = last;
  if (control.is_message_too_large || is_too_large(message.size()) ||
      control.gate.withhold(message, segments)) {
    return false;
  }
  count_delivery(message.size());
  return true;
}

void TarnSession::count_delivery(size_t size) {
  if (recv_reliable_cb_.get().function != nullptr) control().counters.messages_delivered.add(size);
}

bool TarnSession::begin_unreliable_delivery() {
  if (is_ended()) return false;
  if ((course_ & kControlled) != 0 && recv_unreliable_cb_.get().function != nullptr) {
    control().counters.unreliable_delivered.add();
  }
  return true;
}

int TarnSession::pause_receive(bool on) {
  if (is_ended()) return -ESHUTDOWN;
  control().gate.pause(on);
  if (!on) deliver_pending();
  return 0;
}

void TarnSession::deliver_pending() {
  SessionControl& control = this->control();
  ReceiveGate& gate = control.gate;
  control.is_held_up = true;
  for (bool is_more = true; is_more;) {
    ReceiveGate::Turn turn(gate);
    if (!turn) return;
    DataView message;
    while (!is_ended() && gate.take_withheld(message)) {
      count_delivery(message.size());
      hand_over(message);
    }
    // Nothing has been held back before, and who feeds the session may still be delivering.
    if (control.has_fed && !gate.is_paused()) {
      recv_window_.release();
      is_too_large(recv_window_.staged_size());
    }
    is_more = turn.end() && !is_ended();
  }
  control.is_held_up = false;
}
