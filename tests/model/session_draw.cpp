#include "tests/model/session_draw.h"

namespace tarn_model {
namespace {

SessionOp number_op(SessionOp::Kind kind, uint64_t number, uint64_t other = 0) {
  SessionOp op;
  op.kind = kind;
  op.number = number;
  op.other = other;
  return op;
}

SessionOp bytes_op(SessionOp::Kind kind, std::string bytes) {
  SessionOp op;
  op.kind = kind;
  op.bytes = std::move(bytes);
  return op;
}

// From one byte to many fragments, with the sizes at their edges; seldom none at all.
size_t draw_size(Random& random, const ModelSession& session) {
  const auto mss = static_cast<uint64_t>(session.mss());
  const uint64_t dice = random.below(1000);
  if (dice < 2) return 0;
  if (mss > 60000) return dice < 10 ? random.between(65530, 140000) : random.between(1, 30);
  if (mss == 0 || dice < 800) return random.between(1, 20);
  if (dice < 850) return mss + random.below(3) + (mss > 1 ? random.below(2) * mss : 0);
  if (dice < 900) return mss > 12 ? mss - random.below(12) : mss;
  if (dice < 990) return random.between(1, mss * 3);
  return random.between(1, mss * 40);
}

SessionOp draw_send(Random& random, const ModelSession& session) {
  const uint64_t dice = random.below(1000);
  std::string message = random.bytes(draw_size(random, session));
  if (dice < 650) return bytes_op(SessionOp::kSendReliable, std::move(message));
  if (dice == 999)
    return bytes_op(SessionOp::kSendUnreliable, random.bytes(random.between(65530, 65540)));
  if (dice < 900) return bytes_op(SessionOp::kSendUnreliable, std::move(message));
  if (message.size() < 6) message.resize(6, 'n');
  return bytes_op(SessionOp::kSendNocp, std::move(message));
}

SessionOp draw_advance(Random& random) {
  constexpr uint64_t kSteps[] = {1, 5, 9, 10, 10, 20, 29, 30, 30, 30, 50, 60, 120, 240};
  return number_op(SessionOp::kAdvance, random.pick(kSteps));
}

SessionOp draw_setting(Random& random) {
  constexpr uint64_t kWindows[] = {0, 1, 2, 3, 8, 31, 32, 33, 32767, 70000, 4294967295};
  constexpr uint64_t kTimeouts[] = {0, 20, 60, 200, 5000, 5000, 4294967295};
  switch (random.below(7)) {
    case 0:
      return number_op(SessionOp::kSendLimit, random.pick(kWindows));
    case 1:
      return number_op(SessionOp::kRecvLimit, random.pick(kWindows));
    case 2:
      return number_op(SessionOp::kActiveTimeout, random.pick(kTimeouts));
    case 3:
      return number_op(SessionOp::kMtu, random.below(100));
    case 4:
      return number_op(SessionOp::kThreadSafe, random.below(2));
    case 5:
      return number_op(SessionOp::kSetConv, random.below(3));
    default:
      return number_op(SessionOp::kCallbacks, random.chance(60) ? kHasAll : random.below(16));
  }
}

SessionOp draw_restart(Random& random) {
  constexpr uint64_t kMtus[] = {1400, 1400, 1400, 1400, 1400, 100, 50,    30,        22,
                                20,   16,   13,   12,   11,   10,  9,     8,         7,
                                6,    5,    3,    1,    0,    64,  70000, 4294967295};
  constexpr uint64_t kCycles[] = {50, 50, 50, 50, 10, 7, 31, 100, 0, 4294967295};
  return number_op(SessionOp::kRestart, random.pick(kMtus), random.pick(kCycles));
}

SessionOp draw_traffic(Random& random, const ModelSession& session) {
  if (random.chance(40)) return draw_send(random, session);
  return bytes_op(SessionOp::kInput, draw_datagram(random, session));
}

SessionOp draw_arm(Random& random, const ModelSession& session) {
  constexpr What kWhats[] = {What::kDatagram, What::kReliable, What::kUnreliable, What::kError};
  SessionOp op;
  op.kind = SessionOp::kArm;
  op.on = random.pick(kWhats);
  for (uint64_t i = random.between(1, 2); i > 0; --i) {
    op.inside.push_back(random.chance(90) ? draw_traffic(random, session) : draw_setting(random));
  }
  if (random.chance(2)) op.inside.push_back(number_op(SessionOp::kStop, 0));
  return op;
}

// To shortly before the wrap of the numbers, or of half of them.
uint64_t distance(Random& random, uint64_t from) {
  const uint64_t place = random.chance(70) ? 65536 : 32768;
  const uint64_t target = place - random.between(1, 20);
  return from < target ? target - from : 0;
}

SessionOp draw_fast(Random& random, const ModelSession& session) {
  if (random.chance(50)) {
    const uint64_t from = session.next_seq();
    return number_op(SessionOp::kFastSend, distance(random, from), from);
  }
  const ModelRecvWindow& window = session.recv_window();
  const uint64_t from = window.started() ? (window.last() + 1u) % 65536 : 0;
  return number_op(SessionOp::kFastReceive, distance(random, from), from);
}

}  // namespace

SessionOp draw_session_op(Random& random, const ModelSession& session) {
  const uint64_t dice = random.below(100'000);
  if (dice < 15) return draw_fast(random, session);
  if (dice < 1000) return draw_restart(random);
  if (dice < 1050) return number_op(SessionOp::kStop, 0);
  if (dice < 5000) return draw_setting(random);
  if (dice < 5500) return number_op(SessionOp::kGetConv, 0);
  if (dice < 7500) {
    const auto kind = random.chance(50) ? SessionOp::kCheckPacket : SessionOp::kReadConv;
    return bytes_op(kind, draw_datagram(random, session));
  }
  if (dice < 11000) return draw_arm(random, session);
  if (dice < 21000) return draw_advance(random);
  return draw_traffic(random, session);
}

}  // namespace tarn_model
