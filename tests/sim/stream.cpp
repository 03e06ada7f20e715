#include "tests/sim/stream.h"

#include <algorithm>
#include <utility>

#include "tests/sim/failure.h"

namespace tarn_sim {
namespace {

constexpr uint8_t kFirst = 2;
constexpr uint8_t kMiddle = 0;
constexpr uint8_t kLast = 1;
constexpr uint8_t kWhole = 3;

bool ends_message(uint8_t flag) { return (flag & kLast) != 0; }

// The re-send rotation, give or take the millisecond of the tick.
constexpr uint64_t kFirstResendMin = 29 * kNsPerMs;
constexpr uint64_t kFirstResendMax = 62 * kNsPerMs;
constexpr uint64_t kResendMin = 118 * kNsPerMs;
constexpr uint64_t kResendMax = 122 * kNsPerMs;

// A re-send that is under way when the acknowledgement comes may still go out; later ones may not.
constexpr uint64_t kAcknowledgedAndStillSent = 2 * kNsPerSecond;

}  // namespace

// The number with these 16 bits that lies closest to `near`.
uint64_t Stream::absolute(uint16_t seq, uint64_t near) {
  const auto distance =
      static_cast<int16_t>(static_cast<uint16_t>(seq - static_cast<uint16_t>(near)));
  const auto number = static_cast<int64_t>(near) + distance;
  return number >= 0 ? static_cast<uint64_t>(number) : static_cast<uint64_t>(number + 65536);
}

Stream::Piece* Stream::find(uint16_t seq, uint64_t near) {
  const uint64_t number = absolute(seq, near);
  return number < segments_.size() && segments_[number].known ? &segments_[number] : nullptr;
}

void Stream::open_message(std::string bytes, bool is_refusable) {
  Scheduler& scheduler = world_.scheduler();
  OpenMessage message;
  if (rules_.controlled) message.call = sent_.begin(bytes);
  message.bytes = std::move(bytes);
  message.since = scheduler.points();
  message.is_refusable = is_refusable;
  open_[scheduler.self()].push_back(std::move(message));
}

bool Stream::is_sending() const {
  const auto found = open_.find(world_.scheduler().self());
  return found != open_.end() && !found->second.empty();
}

Stream::OpenMessage Stream::take_innermost() {
  std::vector<OpenMessage>& stack = open_[world_.scheduler().self()];
  OpenMessage message = std::move(stack.back());
  stack.pop_back();
  return message;
}

void Stream::close_message(SentMessages::Fate fate) {
  const OpenMessage message = take_innermost();
  if (rules_.trusted) check(sent_.end(message.call, fate));
}

bool Stream::close_message(bool cut_short) {
  const OpenMessage message = take_innermost();
  const bool found_room = !message.is_refused && !message.is_past_room;
  if (rules_.controlled) {
    auto fate = message.is_refused ? SentMessages::Fate::kRefused : SentMessages::Fate::kTaken;
    if (cut_short) fate = SentMessages::Fate::kUnknown;
    if (rules_.trusted) check(sent_.end(message.call, fate));
    return found_room;
  }
  if (message.emitted > 0) settle_last(message);
  if (!cut_short && rules_.trusted && message.emitted != message.bytes.size()) {
    fail("{}: {} of {} bytes of a message have left when its send returns", name_, message.emitted,
         message.bytes.size());
  }
  return found_room;
}

void Stream::settle_last(const OpenMessage& message) {
  segments_[message.last_piece].settled = true;
}

uint8_t Stream::flag_of(const OpenMessage& message, size_t payload) {
  const bool first = message.emitted == 0;
  const bool last = message.emitted + payload == message.bytes.size();
  if (first) return last ? kWhole : kFirst;
  return last ? kLast : kMiddle;
}

bool Stream::emitted(const Emission& emission) {
  const uint64_t number = absolute(emission.seq, segments_.size());
  if (number >= segments_.size() + 65536 / 2)
    fail("{}: segment {} comes from nowhere", name_, number);
  if (number >= segments_.size()) segments_.resize(number + 1);
  Piece& piece = segments_[number];
  const bool is_first = !piece.known;
  if (is_first) ++outstanding_;
  if (!is_first) {
    repeated_emission(piece, number, emission);
  } else if (rules_.controlled) {
    emitted_controlled(piece, number, emission);
  } else {
    first_emission(piece, number, emission);
  }
  ++piece.emissions;
  piece.emitted_at = world_.scheduler().now();
  return is_first;
}

// Which message it belongs to shows when all before it have left.
void Stream::emitted_controlled(Piece& piece, uint64_t number, const Emission& emission) {
  const size_t size = emission.payload.size();
  if (size == 0 || size > rules_.largest_payload ||
      (size < rules_.largest_payload && !ends_message(emission.flag))) {
    fail("{}: segment {} has {} bytes", name_, number, size);
  }
  piece.known = true;
  piece.settled = true;  // before it leaves
  piece.flag = emission.flag;
  piece.payload = emission.payload;
  if (is_sending()) {
    OpenMessage& message = open_[world_.scheduler().self()].back();
    message.emitted += size;
    message.last_piece = number;
  }
  if (!rules_.trusted) return;
  check_room(number);
  place_messages();
}

// What the sender has been told is acknowledged may be more than it has taken in. Segments that it
// does not keep are out for the moment.
void Stream::check_room(uint64_t number) const {
  const bool has_room =
      outstanding_ <= rules_.most_sent && number <= all_acknowledged_ + rules_.most_ahead;
  if (has_room || (rules_.may_overflow && is_somebody_overflowing())) return;
  fail("{}: segment {} is sent, allowed {} of which {} are out, and {} beyond {}", name_, number,
       rules_.most_sent, outstanding_, rules_.most_ahead, all_acknowledged_);
}

bool Stream::is_somebody_overflowing() const {
  for (const auto& each : open_) {
    for (const OpenMessage& message : each.second) {
      if (!message.is_refusable) return true;
    }
  }
  return false;
}

void Stream::place_messages() {
  for (; all_placed_ < segments_.size() && segments_[all_placed_].known; ++all_placed_) {
    const Piece& piece = segments_[all_placed_];
    if (begun_.empty() != ((piece.flag & kFirst) != 0)) {
      fail("{}: segment {} has flag {}", name_, all_placed_, piece.flag);
    }
    begun_ += piece.payload;
    if (!ends_message(piece.flag)) continue;
    check(sent_.place(begun_));
    begun_.clear();
  }
}

void Stream::check(const char* wrong) const {
  if (wrong != nullptr) fail("{}: a message {}", name_, wrong);
}

void Stream::first_emission(Piece& piece, uint64_t number, const Emission& emission) {
  if (!is_sending()) fail("{}: new segment {} while nobody sends", name_, number);
  OpenMessage& message = open_[world_.scheduler().self()].back();
  const size_t left = message.bytes.size() - message.emitted;
  const size_t expected = std::min<size_t>(left, rules_.largest_payload);
  if (emission.payload.size() != expected ||
      message.bytes.compare(message.emitted, expected, emission.payload) != 0) {
    fail("{}: segment {} is not the next {} bytes of its message", name_, number, expected);
  }
  if (emission.flag != flag_of(message, expected)) {
    fail("{}: segment {} has flag {}", name_, number, emission.flag);
  }
  if (message.emitted > 0) {
    if (number != message.last_piece + 1) {
      fail("{}: a message goes on in segment {} after {}", name_, number, message.last_piece);
    }
    settle_last(message);
  }
  message.emitted += expected;
  message.last_piece = number;
  piece.known = true;
  piece.flag = emission.flag;
  piece.payload = emission.payload;
}

void Stream::repeated_emission(Piece& piece, uint64_t number, const Emission& emission) {
  if (emission.payload != piece.payload || emission.flag != piece.flag) {
    fail("{}: segment {} is repeated with other bytes", name_, number);
  }
  if (!rules_.trusted) return;
  if (piece.refused) fail("{}: segment {} is repeated, but was not kept", name_, number);
  if (piece.acknowledged &&
      world_.scheduler().now() - piece.acknowledged_at > kAcknowledgedAndStillSent) {
    fail("{}: segment {} is repeated long after it was acknowledged", name_, number);
  }
  if (rules_.exact_timing) check_resend_time(piece, number);
}

void Stream::check_resend_time(const Piece& piece, uint64_t number) const {
  const uint64_t waited = world_.scheduler().now() - piece.emitted_at;
  const bool first = piece.emissions == 1;
  if (waited < (first ? kFirstResendMin : kResendMin) ||
      world_.scheduler().now() > latest_resend(piece)) {
    fail("{}: segment {} goes out again {:.1f} ms after its emission number {}", name_, number,
         static_cast<double>(waited) * 1e-6, piece.emissions);
  }
}

// A segment that was to go out when its pass was left does so one rotation later.
uint64_t Stream::latest_resend(const Piece& piece) const {
  const uint64_t latest = piece.emitted_at + (piece.emissions == 1 ? kFirstResendMax : kResendMax);
  return resend_left_at_ > piece.emitted_at ? std::max(latest, resend_left_at_ + kResendMax)
                                            : latest;
}

void Stream::check_resends() const {
  if (!rules_.exact_timing) return;
  const uint64_t now = world_.scheduler().now();
  for (uint64_t number = all_acknowledged_; number < segments_.size(); ++number) {
    const Piece& piece = segments_[number];
    if (!piece.settled || piece.acknowledged || piece.refused) continue;
    if (now > latest_resend(piece)) {
      fail("{}: segment {} has not been sent for {:.1f} ms", name_, number,
           static_cast<double>(now - piece.emitted_at) * 1e-6);
    }
  }
}

void Stream::refused() {
  if (!is_sending()) fail("{}: a segment is refused while nobody sends", name_);
  OpenMessage& message = open_[world_.scheduler().self()].back();
  if (rules_.controlled && message.emitted == 0) {
    message.is_refused = true;
    return;
  }
  message.is_past_room = true;
  const uint64_t number = message.last_piece;
  Piece& piece = segments_[number];
  if (!piece.acknowledged) --outstanding_;
  piece.refused = true;
  if (rules_.controlled) pass_acknowledged();
  first_refused_ = std::min(first_refused_, number);
}

void Stream::mark_acknowledged(Piece& piece) {
  // An acknowledgement that overtakes the storing of its segment does nothing.
  if (piece.acknowledged || !piece.settled) return;
  piece.acknowledged = true;
  if (!piece.refused) --outstanding_;
  piece.acknowledged_at = world_.scheduler().now();
  pass_acknowledged();
}

// Who looks for room does not count what the window has not kept.
void Stream::pass_acknowledged() {
  for (; all_acknowledged_ < segments_.size(); ++all_acknowledged_) {
    const Piece& oldest = segments_[all_acknowledged_];
    if (!oldest.acknowledged && !(rules_.controlled && oldest.refused)) return;
  }
}

void Stream::acknowledged(uint16_t seq) {
  Piece* const piece = find(seq, segments_.size());
  if (piece != nullptr) mark_acknowledged(*piece);
}

void Stream::acknowledged_up_to(uint16_t una) {
  if (segments_.empty()) return;
  const uint64_t last = absolute(una, segments_.size() - 1);
  if (last >= segments_.size()) return;
  for (uint64_t number = all_acknowledged_; number <= last; ++number) {
    if (segments_[number].known) mark_acknowledged(segments_[number]);
  }
}

void Stream::fed(uint16_t seq) {
  Piece* const piece = find(seq, in_order_);
  if (piece == nullptr) {
    if (rules_.trusted) fail("{}: the link made up segment {}", name_, seq);
    return;
  }
  piece->fed = true;
  while (in_order_ < segments_.size() && segments_[in_order_].fed) ++in_order_;
}

void Stream::check_feedback(const Emission& emission) const {
  if (!rules_.trusted) return;
  if (emission.una && absolute(*emission.una, in_order_) >= in_order_) {
    fail("{}: una {} is reported, but only {} segments have come in a row", name_, *emission.una,
         in_order_);
  }
  if (!emission.acks) return;
  for (const uint16_t seq : *emission.acks) {
    const uint64_t number = absolute(seq, in_order_);
    if (number >= segments_.size() || !segments_[number].fed) {
      fail("{}: segment {} is acknowledged, but has not come", name_, number);
    }
  }
}

void Stream::delivered(std::string_view message) {
  ++messages_delivered_;
  if (!rules_.trusted) return;
  uint64_t number = next_delivery_;
  for (bool last = false; !last; ++number) {
    if (number >= segments_.size() || !segments_[number].fed) {
      fail("{}: a message is delivered that has not come whole", name_);
    }
    const Piece& piece = segments_[number];
    if (message.substr(0, piece.payload.size()) != piece.payload) {
      fail("{}: the message delivered is not the one that begins with segment {}", name_,
           next_delivery_);
    }
    message.remove_prefix(piece.payload.size());
    last = ends_message(piece.flag);
  }
  if (!message.empty())
    fail("{}: a message is delivered with {} bytes more", name_, message.size());
  next_delivery_ = number;
}

bool Stream::is_complete() const {
  for (uint64_t number = next_delivery_; number < segments_.size(); ++number) {
    if (number >= first_refused_) return true;
    if (ends_message(segments_[number].flag)) return false;
  }
  return sent_.are_all_placed();
}

}  // namespace tarn_sim
