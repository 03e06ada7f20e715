#include "tests/model/send_window_ops.h"

#include "tests/model/minimise.h"

namespace tarn_model {

std::string describe(const SendOp& op) {
  const std::string seq = std::to_string(op.seq);
  std::string text;
  switch (op.kind) {
    case SendOp::kWrite:
      return "write(" + seq + ", " + describe_bytes(op.packet) + ")";
    case SendOp::kGiveAway:
      return "give_away(" + seq + ", " + describe_bytes(op.packet) + ")";
    case SendOp::kRepeat:
      return "write(" + seq + "), " + std::to_string(op.number) + " times";
    case SendOp::kAck:
      return "ack(" + seq + ")";
    case SendOp::kUna:
      return "una(" + seq + ")";
    case SendOp::kLimit:
      return "send_window_size = " + std::to_string(op.number);
    case SendOp::kCallback:
      return op.number != 0 ? "set the callback" : "set no callback";
    case SendOp::kPass:
      text = "pass";
      break;
  }
  for (const SendOp& inner : op.inside) text += ", inside it: " + describe(inner);
  return text;
}

std::vector<SendOp> simpler(const SendOp& op) { return plainer_forms(op, &SendOp::packet); }

bool close_gap(std::vector<SendOp>& ops, uint16_t seq) {
  lower_numbers(ops, seq);
  return true;
}

const uint16_t* number_of(const SendOp& op) {
  return op.kind == SendOp::kWrite || op.kind == SendOp::kGiveAway ? &op.seq : nullptr;
}

void SendSide::apply(const SendOp& op) {
  int64_t done = 0;
  switch (op.kind) {
    case SendOp::kWrite:
      done = write(op.seq, op.packet);
      break;
    case SendOp::kGiveAway:
      done = give_away(op.seq, op.packet);
      break;
    case SendOp::kRepeat:
      for (uint32_t i = 0; i < op.number; ++i) done += write(op.seq, op.packet);
      break;
    case SendOp::kAck:
      ack(op.seq);
      break;
    case SendOp::kUna:
      una(op.seq);
      break;
    case SendOp::kLimit:
      set_limit(op.number);
      break;
    case SendOp::kCallback:
      set_callback(op.number != 0);
      break;
    case SendOp::kPass:
      inside_ = op.inside;
      pass();
      inside_.clear();
      break;
  }
  add({What::kResult, done, std::string()});
  add({What::kResult, count(), std::string()});
}

void SendSide::resent(uint16_t seq, const std::string& packet) {
  add({What::kResend, seq, packet});
  std::vector<SendOp> now;
  now.swap(inside_);
  for (const SendOp& op : now) apply(op);
}

namespace {

constexpr uint16_t kHalf = 32768;

// A number with a reason to be asked for: kept, beside one kept, half the ring from one, or any.
uint16_t draw_known(Random& random, const SendOutlook& outlook) {
  const auto any = static_cast<uint16_t>(random.below(65536));
  const auto near_next = static_cast<uint16_t>(outlook.next - 40 + random.below(60));
  if (outlook.kept.empty()) return random.chance(10) ? any : near_next;
  const uint16_t kept = outlook.kept[random.below(outlook.kept.size())];
  const uint64_t dice = random.below(100);
  if (dice < 70) return kept;
  if (dice < 80) return near_next;
  if (dice < 90) return static_cast<uint16_t>(kept + kHalf - 1 + random.below(3));
  return any;
}

// Mostly the next number; now and then one that is there, or its opposite on the ring.
uint16_t draw_new(Random& random, SendOutlook& outlook) {
  const uint64_t dice = random.below(1000);
  if (dice < 20 && !outlook.kept.empty()) return outlook.kept[random.below(outlook.kept.size())];
  if (dice < 24) return static_cast<uint16_t>(outlook.next - 1 + kHalf);
  if (dice < 26) return static_cast<uint16_t>(random.below(65536));
  if (dice < 60) outlook.next = static_cast<uint16_t>(outlook.next + random.below(30));
  return outlook.next++;
}

SendOp draw_simple(Random& random, SendOutlook& outlook) {
  SendOp op;
  const uint64_t dice = random.below(100);
  op.kind = dice < 55   ? SendOp::kWrite
            : dice < 60 ? SendOp::kGiveAway
            : dice < 85 ? SendOp::kAck
                        : SendOp::kUna;
  const bool is_new = op.kind == SendOp::kWrite || op.kind == SendOp::kGiveAway;
  op.seq = is_new ? draw_new(random, outlook) : draw_known(random, outlook);
  if (is_new) op.packet = random.bytes(random.below(12));
  return op;
}

}  // namespace

SendOp draw_send_op(Random& random, SendOutlook& outlook) {
  constexpr uint32_t kLimits[] = {0, 1, 2, 5, 31, 32, 33, 100, 32767, 65536, 70000, 4294967295};
  SendOp op;
  const uint64_t dice = random.below(10000);
  if (dice < 7500) return draw_simple(random, outlook);
  if (dice < 7700) {
    op.kind = SendOp::kLimit;
    op.number = random.pick(kLimits);
  } else if (dice < 7750) {
    op.kind = SendOp::kCallback;
    op.number = random.chance(80);
  } else if (dice < 7753) {
    op.kind = SendOp::kRepeat;
    op.seq = outlook.next++;
    op.number = static_cast<uint32_t>(random.between(2, 70000));
  } else if (random.chance(30)) {
    for (uint64_t i = random.between(1, 4); i > 0; --i) {
      op.inside.push_back(draw_simple(random, outlook));
    }
  }
  return op;
}

}  // namespace tarn_model
