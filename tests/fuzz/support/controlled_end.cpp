#include "tests/fuzz/support/controlled_end.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <utility>

#include "tests/fuzz/support/exact_copy.h"
#include "tests/fuzz/support/fuzz_check.h"
#include "tests/fuzz/support/plain_decoder.h"

namespace tarn_fuzz {
namespace {

constexpr size_t kHeads = 14;  // of a datagram with a conversation id and a reliable segment
enum SegmentType : unsigned { kReliable, kUnreliable, kAck, kUna, kBye, kHeartbeat, kConv };

constexpr uint64_t TarnStats::*kCounters[] = {
    &TarnStats::messages_sent,        &TarnStats::message_bytes_sent,
    &TarnStats::messages_delivered,   &TarnStats::message_bytes_delivered,
    &TarnStats::messages_refused,     &TarnStats::unreliable_sent,
    &TarnStats::unreliable_delivered, &TarnStats::segments_sent,
    &TarnStats::segments_resent,      &TarnStats::segments_carried,
    &TarnStats::datagrams_sent,       &TarnStats::datagram_bytes_sent,
};
// Of what comes in, unless some of it is dropped unseen.
constexpr uint64_t TarnStats::*kInputCounters[] = {
    &TarnStats::segments_received,
    &TarnStats::datagrams_received,
    &TarnStats::datagram_bytes_received,
};

}  // namespace

ControlledEnd::ControlledEnd(unsigned side, Hooks hooks)
    : side_(side), hooks_(std::move(hooks)), handle_(tarn_create()) {
  FUZZ_CHECK(handle_ != nullptr);
  tarn_set_output_callback(handle_, &ControlledEnd::on_output, this);
  tarn_set_recv_reliable_callback(handle_, &ControlledEnd::on_reliable, this);
  tarn_set_recv_unreliable_callback(handle_, &ControlledEnd::on_unreliable, this);
  tarn_set_error_callback(handle_, &ControlledEnd::on_error, this);
  FUZZ_CHECK(tarn_set_writable_callback(handle_, &ControlledEnd::on_writable, this) == 0);
}

// What calls on an ended session answer.
bool ControlledEnd::is_ended(int result) const {
  return is_destroyed_ && (result == -ESHUTDOWN || result == -EBADF);
}

void ControlledEnd::set(int option, long long value) {
  const auto which = static_cast<TarnOption>(option);
  const int result = tarn_set_option(handle_, which, value);
  FUZZ_CHECK(result == 0 || result == -EINVAL || (result == -EBUSY && which == TARN_OPTION_MTU) ||
             is_ended(result));
  if (result != 0) return;
  has_options_ = true;
  is_strict_ = is_strict_ || (which == TARN_OPTION_STRICT_CONV && value != 0);
  // A callback may have set another value.
  long long now = 0;
  const int looked = tarn_get_option(handle_, which, &now);
  FUZZ_CHECK(looked == 0 || is_ended(looked));
}

long long ControlledEnd::get(TarnOption option) const {
  long long value = 0;
  const int result = tarn_get_option(handle_, option, &value);
  FUZZ_CHECK(result == 0 || is_ended(result));
  return value;
}

void ControlledEnd::set_profile(int profile) {
  const int result = tarn_set_profile(handle_, static_cast<TarnProfile>(profile));
  FUZZ_CHECK(result == 0 || result == -EINVAL || result == -EBUSY || is_ended(result));
  has_options_ = has_options_ || (result == 0 && profile != TARN_PROFILE_PLAIN);
}

// Different from message to message, from end to end, and at every shift.
std::string ControlledEnd::bytes_of(const Message& message) const {
  std::string bytes(message.size, '\0');
  uint32_t state = (message.number * 2 + side_) * 2654435761U + 1;
  for (char& each : bytes) {
    state = state * 1664525 + 1013904223;
    each = static_cast<char>(state >> 24);
  }
  return bytes;
}

// It has its place from now on: what its own datagrams lead to comes behind it.
size_t ControlledEnd::begin(size_t size) {
  sent_.push_back({size, calls_++});
  ++seen_.messages_sent;
  seen_.message_bytes_sent += size;
  return size;
}

void ControlledEnd::refuse(unsigned number) {
  const auto found = std::find_if(sent_.begin(), sent_.end(),
                                  [number](const Message& each) { return each.number == number; });
  FUZZ_CHECK(found != sent_.end());
  --seen_.messages_sent;
  seen_.message_bytes_sent -= found->size;
  sent_.erase(found);
}

void ControlledEnd::try_send(size_t size) {
  const bool was_destroyed = is_destroyed_;
  const size_t room = tarn_send_room(handle_);
  FUZZ_CHECK(!was_destroyed || room == 0);
  begin(size);
  const unsigned number = sent_.back().number;
  ExactCopy copy(bytes_of(sent_.back()));
  const int result = tarn_try_send_reliable(handle_, copy.data(), copy.size());
  if (result == 0) {
    FUZZ_CHECK(!was_destroyed && size > 0 && size <= room);
    return;
  }
  refuse(number);
  if (size == 0 && !was_destroyed) {
    FUZZ_CHECK(result == -EINVAL);
    return;
  }
  if (was_destroyed) {
    FUZZ_CHECK(is_ended(result) || (size == 0 && result == -EINVAL));
    return;
  }
  FUZZ_CHECK((result == -EAGAIN || result == -EMSGSIZE) && size > room);
  if (result == -EMSGSIZE) return;
  ++seen_.messages_refused;
  ++refusals_;
  is_waiting_ = true;
}

void ControlledEnd::send(size_t size) {
  const bool was_destroyed = is_destroyed_;
  begin(size);
  const unsigned number = sent_.back().number;
  ExactCopy copy(bytes_of(sent_.back()));
  sends_.push_back(number);
  const uint64_t emitted = seen_.segments_sent;
  tarn_send_reliable(handle_, copy.data(), copy.length());
  sends_.pop_back();
  if (was_destroyed) {
    refuse(number);
    return;
  }
  if (overflowed_.erase(number) == 0) return;
  ++seen_.messages_refused;
  if (seen_.segments_sent == emitted) {
    refuse(number);
    return;
  }
  // Part of it is out, and no more than that can be said.
  const auto found = std::find_if(sent_.begin(), sent_.end(),
                                  [number](const Message& each) { return each.number == number; });
  broken_at_ = std::min<size_t>(broken_at_, static_cast<size_t>(found - sent_.begin()));
}

void ControlledEnd::send_unreliable(size_t size) {
  ExactCopy copy(std::string(size, 'u'));
  if (!is_destroyed_) ++seen_.unreliable_sent;
  tarn_send_unreliable(handle_, copy.data(), copy.length());
}

void ControlledEnd::pause(bool on) {
  if (!on) is_paused_ = false;
  const int result = tarn_pause_receive(handle_, on ? 1 : 0);
  FUZZ_CHECK(result == 0 || is_ended(result));
  if (on) is_paused_ = true;
}

void ControlledEnd::listen(bool on) {
  is_listening_ = on;
  const int result =
      tarn_set_writable_callback(handle_, on ? &ControlledEnd::on_writable : nullptr, this);
  FUZZ_CHECK(result == 0 || is_ended(result));
}

void ControlledEnd::input(const std::string& datagram) {
  ExactCopy copy(datagram);
  if (!is_destroyed_) count_input(datagram);
  ++inputs_;
  tarn_input(handle_, copy.data(), copy.length());
  --inputs_;
}

void ControlledEnd::count_input(const std::string& datagram) {
  ++seen_.datagrams_received;
  seen_.datagram_bytes_received += datagram.size();
  for (const PlainSegment& each : decode(datagram).segments) {
    if (each.type == kReliable && each.body.size() > 2) ++seen_.segments_received;
  }
}

void ControlledEnd::destroy() {
  if (std::exchange(is_destroyed_, true)) return;
  FUZZ_CHECK(tarn_destroy(handle_) == 0);
}

void ControlledEnd::check_stats() const {
  TarnStats now;
  const int result = tarn_get_stats(handle_, &now, sizeof now);
  FUZZ_CHECK(result == 0 || is_ended(result));
  if (result != 0) return;
  for (const auto counter : kCounters) FUZZ_CHECK(is_broken() || now.*counter == seen_.*counter);
  if (!is_strict_) {
    for (const auto counter : kInputCounters) FUZZ_CHECK(now.*counter == seen_.*counter);
  }
  FUZZ_CHECK(now.segments_repeated + now.segments_rejected <= now.segments_received);
  FUZZ_CHECK((now.queued_messages == 0) == (now.queued_bytes == 0));
  // Without options any una counts, as ever.
  FUZZ_CHECK(!has_options_ || (now.outstanding_segments == 0) == (now.outstanding_bytes == 0));
  FUZZ_CHECK(now.rtt_min_us <= now.rtt_us);
  // A smaller struct gets the beginning.
  char part[sizeof now / 2];
  FUZZ_CHECK(tarn_get_stats(handle_, reinterpret_cast<TarnStats*>(part), sizeof part) == 0);
  FUZZ_CHECK(memcmp(part, &now, sizeof part) == 0);
}

void ControlledEnd::check_rest() const {
  TarnStats now;
  FUZZ_CHECK(tarn_get_stats(handle_, &now, sizeof now) == 0);
  FUZZ_CHECK(now.outstanding_segments == 0 && now.queued_messages == 0);
  FUZZ_CHECK(!is_listening_ || !is_waiting_);
}

size_t ControlledEnd::must_arrive() const { return std::min(broken_at_, sent_.size()); }

void ControlledEnd::check_output(const std::string& datagram) {
  FUZZ_CHECK(datagram.size() >= 2 && datagram[0] == '$' && datagram[1] == '\0');
  const PlainDatagram plain = decode(datagram);
  FUZZ_CHECK(!plain.is_cut_off);
  size_t used = 2;
  bool is_unreliable = false;
  bool has_number = false;
  unsigned last = 0;
  for (const PlainSegment& each : plain.segments) {
    used += 3 + each.body.size();
    is_unreliable = is_unreliable || each.type == kUnreliable;
    if (each.type != kReliable) continue;
    const unsigned number = plain_uint16(each.body, 0);
    FUZZ_CHECK(!has_number || static_cast<uint16_t>(number - last) < 0x8000);
    has_number = true;
    last = number;
    ++(emitted_.insert(number).second ? seen_.segments_sent : seen_.segments_resent);
  }
  FUZZ_CHECK(used == datagram.size());
  ++seen_.datagrams_sent;
  seen_.datagram_bytes_sent += datagram.size();
  // An unreliable message is as long as it is.
  if (is_unreliable || is_destroyed_ || !has_options_) return;
  FUZZ_CHECK(datagram.size() <= static_cast<size_t>(get(TARN_OPTION_MTU)) + kHeads);
}

int ControlledEnd::on_output(char* data, int len, void* user) {
  ControlledEnd& self = *static_cast<ControlledEnd*>(user);
  FUZZ_CHECK(!self.is_destroyed_);
  std::string datagram(data, static_cast<size_t>(len));
  self.check_output(datagram);
  self.hooks_.datagram(self, std::move(datagram));
  self.hooks_.callback(self);
  return 0;
}

void ControlledEnd::check_delivery(const std::string& bytes) {
  ++seen_.messages_delivered;
  seen_.message_bytes_delivered += bytes.size();
  FUZZ_CHECK(!is_paused_);
  if (!is_trusting_) return;
  FUZZ_CHECK(received_ < peer_->sent_.size());
  if (received_ < peer_->must_arrive()) {
    FUZZ_CHECK(bytes == peer_->bytes_of(peer_->sent_[received_]));
  }
  ++received_;
}

int ControlledEnd::on_reliable(char* data, int len, void* user) {
  ControlledEnd& self = *static_cast<ControlledEnd*>(user);
  FUZZ_CHECK(!self.is_destroyed_);
  const std::string bytes(data, static_cast<size_t>(len));
  self.check_delivery(bytes);
  self.hooks_.callback(self);
  FUZZ_CHECK(bytes.compare(0, std::string::npos, data, bytes.size()) == 0);
  return 0;
}

int ControlledEnd::on_unreliable(char* data, int len, void* user) {
  ControlledEnd& self = *static_cast<ControlledEnd*>(user);
  FUZZ_CHECK(!self.is_destroyed_ && self.inputs_ > 0 && data != nullptr && len > 0);
  ++self.seen_.unreliable_delivered;
  self.hooks_.callback(self);
  return 0;
}

int ControlledEnd::on_error(TarnError code, void* user) {
  ControlledEnd& self = *static_cast<ControlledEnd*>(user);
  switch (code) {
    case TARN_ERROR_SEND_OVERFLOW:
      FUZZ_CHECK(!self.sends_.empty());
      self.overflowed_.insert(self.sends_.back());
      break;
    case TARN_ERROR_RECV_REJECTED:
      FUZZ_CHECK(self.inputs_ > 0);
      break;
    case TARN_ERROR_BYE:
      FUZZ_CHECK(!self.is_trusting_ && self.inputs_ > 0);
      break;
    case TARN_ERROR_MESSAGE_TOO_LARGE:
      FUZZ_CHECK(!self.is_too_large_);
      self.is_too_large_ = true;
      break;
    default:
      FUZZ_CHECK(code == TARN_ERROR_INACTIVE);
      break;
  }
  self.hooks_.callback(self);
  return 0;
}

void ControlledEnd::on_writable(void* session, void* user) {
  ControlledEnd& self = *static_cast<ControlledEnd*>(user);
  FUZZ_CHECK(session == self.handle_ && !self.is_destroyed_ && self.is_listening_);
  FUZZ_CHECK(!self.is_telling_ && self.is_waiting_);
  FUZZ_CHECK(++self.tellings_ <= self.refusals_);
  self.is_telling_ = true;
  self.is_waiting_ = false;
  self.hooks_.callback(self);
  self.is_telling_ = false;
}

}  // namespace tarn_fuzz
