#include "tests/model/control_side.h"

#include <utility>

#include "tests/model/minimise.h"

namespace tarn_model {

std::string describe(const ControlOp& op) {
  const std::string number = std::to_string(op.number);
  std::string text;
  switch (op.kind) {
    case ControlOp::kTrySend:
      text = "try_send_reliable(" + number + " bytes)";
      break;
    case ControlOp::kSend:
      text = "send_reliable(" + number + " bytes)";
      break;
    case ControlOp::kInput:
      text = "input(" + describe_bytes(op.bytes) + ")";
      break;
    case ControlOp::kPause:
      text = "pause_receive(" + number + ")";
      break;
    case ControlOp::kOption:
      text = "set_option(" + std::to_string(static_cast<int>(op.option)) + ", " + number + ")";
      break;
    case ControlOp::kListen:
      text = "set_writable_callback(" + number + ")";
      break;
    case ControlOp::kArm:
      text = std::string("at the next ") + name(op.on);
      break;
  }
  for (const ControlOp& inner : op.inside) text += ": " + describe(inner);
  return text;
}

std::vector<ControlOp> simpler(const ControlOp& op) {
  std::vector<ControlOp> forms = plainer_forms(op, &ControlOp::bytes);
  const bool sends = op.kind == ControlOp::kTrySend || op.kind == ControlOp::kSend;
  if (sends && op.number > 1) {
    forms.push_back(op);
    forms.back().number /= 2;
  }
  return forms;
}

void ControlSide::step(const ControlOp& op) {
  apply(op);
  const ControlState now = state();
  const std::pair<const char*, uint64_t> values[] = {{"room ", now.room},
                                                     {", outstanding ", now.outstanding},
                                                     {", queued ", now.queued_messages},
                                                     {" of ", now.queued_bytes},
                                                     {", buffered ", now.buffered},
                                                     {", refused ", now.refused},
                                                     {", sent ", now.sent},
                                                     {" in ", now.segments_sent},
                                                     {", repeated ", now.repeated},
                                                     {", rejected ", now.rejected}};
  std::string text;
  for (const auto& each : values) text += each.first + std::to_string(each.second);
  add({What::kLog, 0, text});
}

// Different from message to message.
std::string ControlSide::next_message(int64_t size) {
  std::string message(static_cast<size_t>(size), '\0');
  for (char& byte : message) byte = next_byte_++;
  return message;
}

void ControlSide::apply(const ControlOp& op) {
  switch (op.kind) {
    case ControlOp::kTrySend:
      return add({What::kResult, try_send(next_message(op.number)), ""});
    case ControlOp::kSend:
      return send(next_message(op.number));
    case ControlOp::kInput:
      return input(op.bytes);
    case ControlOp::kPause:
      return pause(op.number != 0);
    case ControlOp::kOption:
      return add({What::kResult, set_option(op.option, op.number), ""});
    case ControlOp::kListen:
      return listen(op.number != 0);
    case ControlOp::kArm:
      armed_for_ = op.on;
      armed_ = op.inside;
      return;
  }
}

void ControlSide::happened(What what, int64_t number, std::string bytes) {
  add({what, number, std::move(bytes)});
  if (what != armed_for_) return;
  std::vector<ControlOp> now;
  now.swap(armed_);
  for (const ControlOp& op : now) apply(op);
}

}  // namespace tarn_model
