#include "tests/model/model_control.h"

#include <errno.h>

#include <algorithm>
#include <utility>

namespace tarn_model {
namespace {

constexpr int64_t kDefaultWindow = 32;
constexpr uint64_t kMostAhead = 16383;  // of what is sent
constexpr uint16_t kMostAheadReceived = 8192;

uint16_t uint16_at(const std::string& bytes, size_t at) {
  return static_cast<uint16_t>(static_cast<unsigned char>(bytes[at]) * 256 +
                               static_cast<unsigned char>(bytes[at + 1]));
}

}  // namespace

int64_t ModelControl::option(TarnOption option) const {
  const auto found = options_.find(option);
  if (found != options_.end()) return found->second;
  const bool is_window = option == TARN_OPTION_SEND_WINDOW || option == TARN_OPTION_RECV_WINDOW;
  return is_window ? kDefaultWindow : 0;
}

int ModelControl::set_option(TarnOption option, int64_t value) {
  if (option == TARN_OPTION_MTU && has_sent_) return -EBUSY;
  has_options_ = true;
  options_[option] = value;
  drain();
  return 0;
}

void ModelControl::listen(bool on) {
  is_listening_ = on;
  tell();
}

ControlState ModelControl::state() {
  ControlState now;
  now.room = room();
  now.outstanding = outstanding_.size();
  now.queued_messages = queue_.size();
  now.queued_bytes = queued_bytes();
  now.buffered = early_.size() + withheld_segments();
  now.refused = refused_;
  now.sent = sent_;
  now.segments_sent = segments_sent_;
  now.repeated = repeated_;
  now.rejected = rejected_;
  return now;
}

// Sending.

uint64_t ModelControl::ahead() const {
  const int64_t limit = option(TARN_OPTION_PEER_WINDOW);
  return limit == 0 ? kMostAhead : static_cast<uint64_t>(limit);
}

// From the oldest number that is out to the next one.
uint64_t ModelControl::span() const {
  return outstanding_.empty() ? 0 : static_cast<uint64_t>(next_ - outstanding_.front());
}

uint64_t ModelControl::free_segments() const {
  const auto window = static_cast<uint64_t>(option(TARN_OPTION_SEND_WINDOW));
  const uint64_t in_window = window > outstanding_.size() ? window - outstanding_.size() : 0;
  const uint64_t before_peer = ahead() + 1 > span() ? ahead() + 1 - span() : 0;
  return std::min(in_window, before_peer);
}

uint64_t ModelControl::queued_bytes() const {
  uint64_t bytes = 0;
  for (const Waiting& each : queue_) bytes += each.rest.size();
  return bytes;
}

uint64_t ModelControl::free_queue() const {
  const auto most = static_cast<uint64_t>(option(TARN_OPTION_SEND_QUEUE));
  return most > queued_bytes() ? most - queued_bytes() : 0;
}

uint64_t ModelControl::most_bytes() const {
  return static_cast<uint64_t>(option(TARN_OPTION_SEND_WINDOW)) * mtu() +
         static_cast<uint64_t>(option(TARN_OPTION_SEND_QUEUE));
}

uint64_t ModelControl::room() const {
  if (!queue_.empty()) return free_queue();
  return outstanding_.empty() ? most_bytes() : free_segments() * mtu() + free_queue();
}

bool ModelControl::is_half_free() const {
  const auto window = static_cast<uint64_t>(option(TARN_OPTION_SEND_WINDOW));
  const uint64_t most =
      std::min(window, ahead() + 1) * mtu() + static_cast<uint64_t>(option(TARN_OPTION_SEND_QUEUE));
  return 2 * (free_segments() * mtu() + free_queue()) >= most;
}

int ModelControl::try_send(const std::string& message) {
  if (message.empty()) return -EINVAL;
  if (message.size() > most_bytes()) return -EMSGSIZE;
  if (message.size() > room()) {
    smallest_refused_ = std::min<uint64_t>(smallest_refused_, message.size());
    ++refused_;
    return -EAGAIN;
  }
  emit_run(message, put(message));
  return 0;
}

// With a queue a message that finds no room is not taken; without, it goes out all the same.
void ModelControl::send(const std::string& message) {
  has_sent_ = true;
  const bool fits = message.size() <= room();
  const bool has_queue = option(TARN_OPTION_SEND_QUEUE) > 0 || !queue_.empty();
  if (!fits) ++refused_;
  if (!fits && has_queue) return happened(What::kError, 0, "");
  emit_run(message, fits ? put(message) : put_past_limit(message));
}

ModelControl::Run ModelControl::put(const std::string& message) {
  Run run{next_, 0, 0};
  if (queue_.empty()) {
    run.count = run.kept = std::min<size_t>(free_segments(), segments_of(message.size()));
  }
  const size_t at_once = std::min(message.size(), run.count * mtu());
  if (at_once < message.size()) queue_.push_back({message.substr(at_once), run.count > 0});
  ++sent_;
  take_numbers(run);
  return run;
}

ModelControl::Run ModelControl::put_past_limit(const std::string& message) {
  const Run run{next_, segments_of(message.size()),
                std::min<size_t>(free_segments(), segments_of(message.size()))};
  take_numbers(run);
  return run;
}

void ModelControl::take_numbers(const Run& run) {
  has_sent_ = true;
  for (size_t i = 0; i < run.kept; ++i) {
    outstanding_.push_back(static_cast<uint16_t>(run.first + i));
  }
  next_ = static_cast<uint16_t>(run.first + run.count);
  segments_sent_ += run.count;
}

void ModelControl::emit_run(const std::string& message, const Run& run) {
  const size_t size = mtu();
  for (size_t i = 0; i < run.count; ++i) {
    const unsigned flag = (i == 0 ? 2u : 0u) + ((i + 1) * size >= message.size() ? 1u : 0u);
    emit(static_cast<uint16_t>(run.first + i), flag, message.substr(i * size, size));
    if (i >= run.kept) happened(What::kError, 0, "");
  }
}

void ModelControl::emit(uint16_t seq, unsigned flag, const std::string& payload) {
  happened(What::kDatagram, seq, std::to_string(flag) + payload);
}

// Not from inside itself: what an emission brings about goes on here.
void ModelControl::drain() {
  if (is_draining_) return;
  is_draining_ = true;
  while (!queue_.empty() && free_segments() > 0) {
    Waiting& oldest = queue_.front();
    const std::string payload = oldest.rest.substr(0, mtu());
    oldest.rest.erase(0, payload.size());
    const unsigned flag = (oldest.begun ? 0u : 2u) + (oldest.rest.empty() ? 1u : 0u);
    oldest.begun = true;
    if (oldest.rest.empty()) queue_.pop_front();
    const Run run{next_, 1, 1};
    take_numbers(run);
    emit(run.first, flag, payload);
  }
  is_draining_ = false;
  tell();
}

void ModelControl::tell() {
  while (is_listening_ && !is_telling_ && smallest_refused_ != UINT64_MAX && is_half_free() &&
         room() >= std::min(smallest_refused_, most_bytes())) {
    smallest_refused_ = UINT64_MAX;
    is_telling_ = true;
    happened(What::kResend, 0, "");
    is_telling_ = false;
  }
}

// Receiving.

void ModelControl::input(const std::string& datagram) {
  for (size_t at = 2; at < datagram.size();) {
    const unsigned head = static_cast<unsigned char>(datagram[at]);
    const size_t size = uint16_at(datagram, at + 1);
    const std::string body = datagram.substr(at + 3, size);
    at += 3 + size;
    const unsigned type = head / 4;
    if (type == 0) {
      got_reliable(body, head % 4);
      continue;
    }
    got_acknowledgement(type, body);
  }
  // When all that it says is known.
  if (std::exchange(has_acknowledgements_, false)) drain();
}

// With options, what is not out and is not what has been acknowledged last cannot be acknowledged.
void ModelControl::got_acknowledgement(unsigned type, const std::string& body) {
  const uint16_t oldest = outstanding_.empty() ? next_ : outstanding_.front();
  const uint16_t una = uint16_at(body, 0);
  const bool is_out = static_cast<uint16_t>(una + 1 - oldest) <= span();
  if (type == 3 && !is_out && has_options_) return;
  const auto is_acked = [&](uint16_t seq) {
    if (type == 3) return static_cast<uint16_t>(una - seq) < 0x8000;
    for (size_t i = 0; i < body.size(); i += 2) {
      if (uint16_at(body, i) == seq) return true;
    }
    return false;
  };
  outstanding_.erase(std::remove_if(outstanding_.begin(), outstanding_.end(), is_acked),
                     outstanding_.end());
  has_acknowledgements_ = true;
}

size_t ModelControl::withheld_segments() const {
  size_t segments = 0;
  for (const Withheld& each : withheld_) segments += each.segments;
  return segments;
}

void ModelControl::got_reliable(const std::string& body, unsigned flag) {
  const uint16_t seq = uint16_at(body, 0);
  switch (take_in(seq, {body.substr(2), flag % 2 == 1})) {
    case Arrival::kNew:
      return;
    case Arrival::kRepeated:
      ++repeated_;
      return;
    case Arrival::kRefused:
      ++rejected_;
      if (!is_over_) happened(What::kError, 1, "");
      return;
  }
}

bool ModelControl::has_come(uint16_t seq) const {
  return seq < expected_ || early_.count(seq) != 0;
}

ModelControl::Arrival ModelControl::take_in(uint16_t seq, const Segment& segment) {
  const auto last = static_cast<uint16_t>(expected_ == 0 ? 0 : expected_ - 1);
  const bool is_far = has_options_ && seq > last && seq - last > kMostAheadReceived;
  if (is_over_ || is_far) return Arrival::kRefused;
  Arrival arrival = Arrival::kRefused;
  if (!is_paused_ && !is_turn_taken_) {
    is_turn_taken_ = true;
    arrival = take_in_turn(seq, segment);
    if (!leave_turn()) return arrival;
  } else {
    is_wanted_ = true;
    const auto limit = static_cast<size_t>(option(TARN_OPTION_RECV_WINDOW));
    const size_t room = limit > withheld_segments() ? limit - withheld_segments() : 0;
    if (has_come(seq)) {
      arrival = Arrival::kRepeated;
    } else if (early_.size() < room) {
      early_[seq] = segment;
      arrival = Arrival::kNew;
    }
  }
  deliver_pending();
  return arrival;
}

ModelControl::Arrival ModelControl::take_in_turn(uint16_t seq, const Segment& segment) {
  const bool is_next = seq == expected_;
  if (is_next && is_too_large(staged_.size() + segment.payload.size())) return Arrival::kRefused;
  if (seq < expected_) return Arrival::kRepeated;
  if (!is_next) {
    // A full buffer refuses what it has already, too.
    const auto limit = static_cast<size_t>(option(TARN_OPTION_RECV_WINDOW));
    if (early_.size() >= limit) return Arrival::kRefused;
    const bool is_repeated = !early_.emplace(seq, segment).second;
    is_too_large(staged_.size());
    return is_repeated ? Arrival::kRepeated : Arrival::kNew;
  } else {
    accept(segment);
    release();
  }
  is_too_large(staged_.size());
  return Arrival::kNew;
}

bool ModelControl::is_too_large(size_t size) {
  const auto limit = static_cast<size_t>(option(TARN_OPTION_MAX_MESSAGE));
  if (limit == 0 || size <= limit) return false;
  if (!is_over_) {
    is_over_ = true;
    happened(What::kError, TARN_ERROR_MESSAGE_TOO_LARGE, "");
  }
  return true;
}

void ModelControl::accept(const Segment& segment) {
  ++expected_;
  staged_ += segment.payload;
  ++staged_segments_;
  if (!segment.ends) return;
  std::string message;
  message.swap(staged_);
  complete(message);
}

void ModelControl::release() {
  for (auto next = early_.find(expected_); next != early_.end(); next = early_.find(expected_)) {
    const Segment segment = next->second;
    early_.erase(next);
    accept(segment);
  }
}

void ModelControl::complete(const std::string& message) {
  const size_t segments = std::exchange(staged_segments_, 0);
  if (is_over_ || is_too_large(message.size())) return;
  if (is_paused_ || !withheld_.empty()) {
    withheld_.push_back({message, segments});
  } else {
    deliver(message);
  }
}

void ModelControl::deliver(const std::string& message) { happened(What::kReliable, 0, message); }

void ModelControl::pause(bool on) {
  is_paused_ = on;
  if (!on) deliver_pending();
}

void ModelControl::deliver_pending() {
  do {
    if (is_paused_ || is_turn_taken_) {
      is_wanted_ = true;
      return;
    }
    is_turn_taken_ = true;
    while (!is_paused_ && !withheld_.empty()) {
      const std::string message = withheld_.front().message;
      withheld_.pop_front();
      deliver(message);
    }
    if (!is_paused_) {
      release();
      is_too_large(staged_.size());
    }
  } while (leave_turn());
}

// Whether there may be more to deliver that came beside the turn.
bool ModelControl::leave_turn() {
  is_turn_taken_ = false;
  const bool was_wanted = std::exchange(is_wanted_, false);
  return !is_paused_ && (was_wanted || !withheld_.empty());
}

}  // namespace tarn_model
