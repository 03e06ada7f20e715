#include "tests/model/recv_window_ops.h"

#include "tests/model/minimise.h"
#include "tests/model/model_feedback.h"

namespace tarn_model {
namespace {

std::string describe_one(const RecvOp& op) {
  const std::string seq = std::to_string(op.seq);
  const std::string number = std::to_string(op.number);
  const std::string segment =
      "(" + seq + ", flag " + std::to_string(op.flag) + ", " + describe_bytes(op.payload) + ")";
  switch (op.kind) {
    case RecvOp::kInput:
      return "input" + segment;
    case RecvOp::kInputLent:
      return "input, lent" + segment;
    case RecvOp::kRepeat:
      return "input" + segment + ", " + number + " times";
    case RecvOp::kOutputPacket:
      return "output" + segment;
    case RecvOp::kOutputMessage:
      return "output(" + seq + ", " + describe_bytes(op.payload) + ")";
    case RecvOp::kWriteToBuffer:
      return "write_to_buffer" + segment;
    case RecvOp::kRelease:
      return "try_release_buffer()";
    case RecvOp::kUna:
      return "get_una()";
    case RecvOp::kAcks:
      return "get_ack(" + number + ")";
    case RecvOp::kAllAcks:
      return "get_ack()";
    case RecvOp::kFeedback:
      return "take_feedback(" + number + ")";
    case RecvOp::kLook:
      return "has_feedback()";
    case RecvOp::kLimit:
      return "recv_window_size = " + number;
    case RecvOp::kCallback:
      return op.number != 0 ? "set the callback" : "set no callback";
  }
  return "?";
}

std::string bytes_of(const std::vector<uint16_t>& acks) {
  std::string bytes;
  for (const uint16_t seq : acks) bytes += uint16_bytes(seq);
  return bytes;
}

}  // namespace

std::string describe(const RecvOp& op) {
  std::string text = describe_one(op);
  for (const RecvOp& inner : op.inside) text += ", at its first delivery: " + describe(inner);
  return text;
}

std::vector<RecvOp> simpler(const RecvOp& op) {
  std::vector<RecvOp> forms = plainer_forms(op, &RecvOp::payload);
  if (op.kind == RecvOp::kInputLent || (op.kind == RecvOp::kRepeat && op.number < 2)) {
    forms.push_back(op);
    forms.back().kind = RecvOp::kInput;
  } else if (op.kind == RecvOp::kRepeat) {
    forms.push_back(op);
    forms.back().number /= 2;
  }
  return forms;
}

bool close_gap(std::vector<RecvOp>& ops, uint16_t seq) {
  lower_numbers(ops, seq);
  return true;
}

const uint16_t* number_of(const RecvOp& op) {
  return op.kind == RecvOp::kInput || op.kind == RecvOp::kInputLent ? &op.seq : nullptr;
}

void RecvSide::apply(const RecvOp& op) {
  inside_ = op.inside;
  switch (op.kind) {
    case RecvOp::kInput:
    case RecvOp::kInputLent:
    case RecvOp::kRepeat:
      do_input(op);
      break;
    case RecvOp::kOutputPacket:
      output(op.seq, op.payload, is_last(op));
      break;
    case RecvOp::kOutputMessage:
      output(op.seq, op.payload);
      break;
    case RecvOp::kWriteToBuffer:
      add({What::kResult, write_to_buffer(op.seq, op.payload, is_last(op)), "written"});
      break;
    case RecvOp::kRelease:
      release_buffer();
      break;
    case RecvOp::kUna:
    case RecvOp::kAcks:
    case RecvOp::kAllAcks:
    case RecvOp::kFeedback:
      do_feedback(op);
      break;
    case RecvOp::kLook:
      add({What::kResult, has_feedback(), "has feedback"});
      break;
    case RecvOp::kLimit:
      set_limit(static_cast<uint32_t>(op.number));
      break;
    case RecvOp::kCallback:
      set_callback(op.number != 0);
      break;
  }
  inside_.clear();
}

void RecvSide::do_input(const RecvOp& op) {
  const uint64_t times = op.kind == RecvOp::kRepeat ? op.number : 1;
  int64_t taken = 0;
  for (uint64_t i = 0; i < times; ++i) {
    taken += input(op.seq, op.payload, op.flag, op.kind == RecvOp::kInputLent);
  }
  add({What::kResult, taken, "taken"});
}

void RecvSide::do_feedback(const RecvOp& op) {
  std::vector<uint16_t> acks;
  uint16_t una = 0;
  switch (op.kind) {
    case RecvOp::kUna:
      add({What::kResult, take_una(una) ? una : -1, "una"});
      break;
    case RecvOp::kAcks:
      add({What::kResult, take_acks(acks, op.number), "any acks"});
      add({What::kResult, 0, bytes_of(acks)});
      break;
    case RecvOp::kAllAcks:
      add({What::kResult, take_all_acks(acks), "any acks"});
      add({What::kResult, 0, bytes_of(acks)});
      break;
    default:
      add({What::kResult, 0, take_feedback(op.number)});
      break;
  }
}

void RecvSide::delivered(const std::string& message) {
  add({What::kReliable, 0, message});
  std::vector<RecvOp> now;
  now.swap(inside_);
  for (const RecvOp& op : now) apply(op);
}

}  // namespace tarn_model
