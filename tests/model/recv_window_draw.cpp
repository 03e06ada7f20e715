// What is tried on a receive window.
#include <initializer_list>

#include "tests/model/recv_window_ops.h"

namespace tarn_model {
namespace {

uint16_t at(int number) { return static_cast<uint16_t>(number); }

// A number with a reason to come: the next one, one soon after it, one that waits or has been, one
// at the edge of half the ring, or any.
uint16_t draw_seq(Random& random, const ModelRecvWindow& window) {
  const int next = window.started() ? window.last() + 1 : 0;
  const uint64_t dice = random.below(1000);
  // Before number 0, anything may come and wait.
  if (!window.started() && random.chance(40)) return at(static_cast<int>(random.below(65536)));
  if (dice < 400) return at(next);
  if (dice < 750) return at(next + 1 + static_cast<int>(random.below(8)));
  if (dice < 850 && !window.waiting().empty()) {
    return window.waiting()[random.below(window.waiting().size())].seq;
  }
  if (dice < 940 && window.started()) return at(next - 1 - static_cast<int>(random.below(6)));
  if (dice < 970) return at(next + 1 + static_cast<int>(random.below(60)));
  if (dice < 990 && window.started()) return at(next + 32765 + static_cast<int>(random.below(5)));
  return at(static_cast<int>(random.below(65536)));
}

unsigned draw_flag(Random& random) {
  return random.chance(60) ? 3 : static_cast<unsigned>(random.below(4));
}

RecvOp draw_input(Random& random, const ModelRecvWindow& window) {
  RecvOp op;
  op.kind = random.chance(30) ? RecvOp::kInputLent : RecvOp::kInput;
  op.seq = draw_seq(random, window);
  op.flag = draw_flag(random);
  op.payload = random.bytes(random.below(10));
  return op;
}

RecvOp draw_feedback(Random& random) {
  // Below 6 nobody asks.
  constexpr uint64_t kBudgets[] = {6,  7,  8,  9,  10,   11,         12,          13,
                                   14, 20, 31, 64, 1400, 4294967295, ~uint64_t{0}};
  constexpr RecvOp::Kind kKinds[] = {RecvOp::kUna,      RecvOp::kAcks,     RecvOp::kAllAcks,
                                     RecvOp::kFeedback, RecvOp::kFeedback, RecvOp::kFeedback,
                                     RecvOp::kLook,     RecvOp::kLook,     RecvOp::kLook};
  RecvOp op;
  op.kind = random.pick(kKinds);
  if (op.kind == RecvOp::kAcks) op.number = random.below(6);
  if (op.kind == RecvOp::kFeedback) op.number = random.pick(kBudgets);
  return op;
}

RecvOp draw_setting(Random& random) {
  constexpr uint64_t kLimits[] = {0, 1, 2, 3, 7, 8, 31, 32, 33, 32767, 70000, 4294967295};
  RecvOp op;
  const bool callback = random.chance(15);
  op.kind = callback ? RecvOp::kCallback : RecvOp::kLimit;
  op.number = callback ? random.chance(75) : random.pick(kLimits);
  return op;
}

RecvOp draw_part(Random& random, const ModelRecvWindow& window) {
  constexpr RecvOp::Kind kKinds[] = {RecvOp::kOutputPacket, RecvOp::kOutputMessage,
                                     RecvOp::kWriteToBuffer, RecvOp::kRelease};
  RecvOp op = draw_input(random, window);
  op.kind = random.pick(kKinds);
  return op;
}

}  // namespace

RecvOp draw_recv_op(Random& random, const ModelRecvWindow& window) {
  const uint64_t dice = random.below(10000);
  if (dice >= 9800) return draw_setting(random);
  if (dice >= 9700) return draw_part(random, window);
  if (dice >= 8000) return draw_feedback(random);
  RecvOp op = draw_input(random, window);
  if (dice < 3) {
    op.kind = RecvOp::kRepeat;
    op.number = random.chance(50) ? random.between(2, 100) : random.between(32760, 32780);
  } else if (dice < 800) {
    for (uint64_t i = random.between(1, 3); i > 0; --i) {
      op.inside.push_back(random.chance(80) ? draw_input(random, window) : draw_feedback(random));
    }
  }
  return op;
}

std::vector<RecvOp> draw_recv_fill(Random& random, const ModelRecvWindow& window) {
  constexpr uint64_t kAll = 65535;
  const int next = window.started() ? window.last() + 1 : 0;
  std::vector<RecvOp> ops;
  const auto add = [&ops](RecvOp::Kind kind, int seq, uint64_t number) {
    ops.emplace_back();
    ops.back().kind = kind;
    ops.back().seq = at(seq);
    ops.back().number = number;
  };
  add(RecvOp::kLimit, 0, 32);
  const int repeated = next + 1 + static_cast<int>(random.below(3));
  add(RecvOp::kRepeat, repeated, random.between(32760, 32780));
  for (int seq = next; seq <= next + 3; ++seq) {
    if (random.chance(80)) add(RecvOp::kInput, seq, 0);
  }
  for (uint64_t i = random.below(4); i > 0; --i) {
    add(RecvOp::kInput, next + 5 + static_cast<int>(random.below(5)), 0);
  }
  add(RecvOp::kAcks, 0, random.chance(50) ? kAll : random.below(10));
  add(RecvOp::kAcks, 0, kAll);
  return ops;
}

std::vector<RecvOp> draw_recv_start(Random& random) {
  constexpr int kPlaces[] = {65500, 65530, 65535, 32760, 30000};
  RecvOp callback;
  callback.kind = RecvOp::kCallback;
  callback.number = 1;
  if (random.chance(50)) return {callback};
  RecvOp first;
  first.kind = RecvOp::kInput;
  RecvOp jump;
  jump.kind = RecvOp::kOutputMessage;
  jump.seq = at(random.pick(kPlaces));
  return {callback, first, jump};
}

}  // namespace tarn_model
