// TarnSession: the operations on DataViews, for callers that have one. They do nothing of their
// own.
#include <utility>

#include "src/tarn_session.h"
#include "src/wire_format.h"

TarnSession::Bytes TarnSession::bytes_of(DataView& view) {
  const size_t size = view.size();
  return size > 0 ? Bytes{view.data(), size} : Bytes{nullptr, 0};
}

void TarnSession::input(DataView packet) {
  const size_t size = packet.size();
  input(size > 0 ? packet.data() : nullptr, size);
}

void TarnSession::output(DataView payload, bool no_feedback) {
  emit(bytes_of(payload), Bytes{nullptr, 0}, no_feedback ? kWithoutFeedback : kWithFeedback);
}

void TarnSession::send_reliable(DataView& data, unsigned char flag) {
  const Bytes message = bytes_of(data);
  const size_t sent = message.size - send_message(message, flag).size;
  if (sent > 0) data.consume_front(sent);
}

void TarnSession::recv_reliable(DataView message) {
  if (!is_stopped()) deliver_reliable(std::move(message));
}

void TarnSession::recv_unreliable(DataView data) {
  if (!is_stopped()) deliver_unreliable(data);
}

bool TarnSession::got_ack(DataView& body) { return got_ack(bytes_of(body)); }

bool TarnSession::got_una(DataView& body) { return got_una(bytes_of(body)); }

bool TarnSession::got_conv(DataView& body) { return got_conv(bytes_of(body)); }

void TarnSession::make_conv(DataView& conv_seg) const {
  const unsigned int conv = conv_;
  if (conv == 0) return;
  conv_seg = DataView(wire::kConvSegSize);
  wire::put_conv_segment(conv_seg.data(), conv);
}

void TarnSession::make_feedback(DataView& ack_seg, DataView& una_seg, unsigned long budget) {
  Feedback feedback;
  gather_feedback(budget, feedback);
  if (feedback.has_una) {
    una_seg = DataView(feedback.una_size());
    feedback.put_una(una_seg.data());
  }
  if (feedback.has_acks) {
    ack_seg = DataView(feedback.ack_size());
    feedback.put_acks(ack_seg.data());
  }
}

// No heartbeat goes over the wire: any datagram shows that the peer is there.
void TarnSession::make_heartbeat(DataView&) {}
