#include "tests/model/session_side.h"

#include "tests/model/minimise.h"
#include "tests/model/model_feedback.h"

namespace tarn_model {
namespace {

constexpr uint64_t kUnacknowledged = 16;

std::string describe_number(const SessionOp& op) {
  const std::string number = std::to_string(op.number);
  const std::string other = std::to_string(op.other);
  switch (op.kind) {
    case SessionOp::kSetConv:
      return "set_conv(" + number + ")";
    case SessionOp::kGetConv:
      return "get_conv()";
    case SessionOp::kAdvance:
      return "clock + " + number + " ms";
    case SessionOp::kCallbacks:
      return "callbacks: bits " + number;
    case SessionOp::kSendLimit:
      return "send_window_size = " + number;
    case SessionOp::kRecvLimit:
      return "recv_window_size = " + number;
    case SessionOp::kActiveTimeout:
      return "active_timeout = " + number;
    case SessionOp::kMtu:
      return "mtu = " + number;
    case SessionOp::kThreadSafe:
      return "thread_safe = " + number;
    case SessionOp::kStop:
      return "stop()";
    case SessionOp::kRestart:
      return "new session: mtu " + number + ", rtx_timeout " + other;
    case SessionOp::kArm:
      return std::string("at the next ") + name(op.on);
    case SessionOp::kFastSend:
      return number + " messages sent, numbered from " + other;
    case SessionOp::kFastReceive:
      return number + " messages received, numbered from " + other;
    default:
      return "?";
  }
}

}  // namespace

std::string describe(const SessionOp& op) {
  const std::string bytes = "(" + describe_bytes(op.bytes) + ")";
  std::string text;
  switch (op.kind) {
    case SessionOp::kInput:
      text = "input" + bytes;
      break;
    case SessionOp::kSendReliable:
      text = "send_reliable" + bytes;
      break;
    case SessionOp::kSendUnreliable:
      text = "send_unreliable" + bytes;
      break;
    case SessionOp::kSendNocp:
      text = "send_unreliable_nocp" + bytes;
      break;
    case SessionOp::kCheckPacket:
      text = "check_packet" + bytes;
      break;
    case SessionOp::kReadConv:
      text = "read_packet_conv" + bytes;
      break;
    default:
      text = describe_number(op);
      break;
  }
  for (const SessionOp& inner : op.inside) text += ": " + describe(inner);
  return text;
}

namespace {

// Where the segments of a well-formed datagram begin, and its end.
std::vector<size_t> cuts(const std::string& datagram) {
  std::vector<size_t> places;
  for (size_t at = 2; at + 3 <= datagram.size();) {
    places.push_back(at);
    const auto high = static_cast<unsigned char>(datagram[at + 1]);
    const auto low = static_cast<unsigned char>(datagram[at + 2]);
    at += 3u + high * 256u + low;
  }
  places.push_back(datagram.size());
  return places;
}

}  // namespace

// A datagram with a segment less, or a message of half the size.
std::vector<SessionOp> simpler(const SessionOp& op) {
  std::vector<SessionOp> forms;
  if (op.kind == SessionOp::kInput && op.bytes.size() > 2) {
    const std::vector<size_t> places = cuts(op.bytes);
    for (size_t i = 0; i + 1 < places.size(); ++i) {
      if (places[i + 1] > op.bytes.size()) break;
      forms.push_back(op);
      forms.back().bytes.erase(places[i], places[i + 1] - places[i]);
    }
  }
  const bool sends = op.kind == SessionOp::kSendReliable || op.kind == SessionOp::kSendUnreliable;
  if (sends && op.bytes.size() > 1) {
    forms.push_back(op);
    forms.back().bytes.resize(op.bytes.size() / 2);
  }
  for (size_t i = 0; i < op.inside.size(); ++i) {
    forms.push_back(op);
    forms.back().inside = without(op.inside, i, 1);
    for (const SessionOp& inner : simpler(op.inside[i])) {
      forms.push_back(op);
      forms.back().inside[i] = inner;
    }
  }
  return forms;
}

void SessionSide::apply(const SessionOp& op) {
  const auto number = static_cast<uint32_t>(op.number);
  switch (op.kind) {
    case SessionOp::kInput:
      return input(op.bytes);
    case SessionOp::kSendReliable:
      return send_reliable(op.bytes);
    case SessionOp::kSendUnreliable:
      return send_unreliable(op.bytes);
    case SessionOp::kSendNocp:
      return add({What::kResult, 0, send_nocp(op.bytes)});
    case SessionOp::kCheckPacket:
      return add({What::kResult, check_packet(op.bytes), ""});
    case SessionOp::kReadConv:
      return add({What::kResult, read_conv(op.bytes), ""});
    case SessionOp::kSetConv:
      return set_conv(number);
    case SessionOp::kGetConv:
      return add({What::kResult, get_conv(), ""});
    case SessionOp::kAdvance:
      return advance(number);
    case SessionOp::kCallbacks:
      return set_callbacks(op.number);
    case SessionOp::kStop:
      return stop();
    case SessionOp::kRestart:
      return restart(number, static_cast<uint32_t>(op.other));
    case SessionOp::kFastSend:
      return fast_send(op.number, op.other);
    case SessionOp::kFastReceive:
      return fast_receive(op.number, op.other);
    case SessionOp::kSendLimit:
    case SessionOp::kRecvLimit:
    case SessionOp::kActiveTimeout:
    case SessionOp::kMtu:
    case SessionOp::kThreadSafe:
      return set(op.kind, number);
    case SessionOp::kArm:
      armed_for_ = op.on;
      armed_ = op.inside;
      return;
  }
}

void SessionSide::happened(What what, int64_t number, std::string bytes) {
  add({what, number, std::move(bytes)});
  if (what != armed_for_) return;
  std::vector<SessionOp> now;
  now.swap(armed_);
  for (const SessionOp& op : now) apply(op);
}

void SessionSide::fast_send(uint64_t count, uint64_t first) {
  const std::string header("$\0", 2);
  mute(true);
  for (uint64_t i = 0; i < count; ++i) {
    send_reliable("m");
    if (i % kUnacknowledged != 0 && i + 1 != count) continue;
    input(header + segment_bytes(3, 3, uint16_bytes(first + i)));
  }
  mute(false);
}

void SessionSide::fast_receive(uint64_t count, uint64_t first) {
  std::string datagram("$\0", 2);
  for (uint64_t i = 0; i < count; ++i) {
    datagram += segment_bytes(0, 3, uint16_bytes(first + i) + "m");
  }
  mute(true);
  input(datagram);
  mute(false);
}

}  // namespace tarn_model
