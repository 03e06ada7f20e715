// Endpoint: what an application does by way of tarn/control.h.
#include <errno.h>
#include <fmt/format.h>

#include <algorithm>

#include "tests/sim/endpoint.h"
#include "tests/sim/endpoint_calls.h"

namespace tarn_sim {
namespace {

// Numbers at most that the library takes beyond the last one in order.
constexpr uint64_t kMostAhead = 8192;
// Between the arrival of a datagram and the library's look at the clock.
constexpr uint32_t kLookMs = 50;

}  // namespace

void Endpoint::begin_control() {
  if (is_begun_ || !is_open()) return;
  is_begun_ = true;
  const ControlPlan& control = plan_.control;
  const Call call(*this);
  if (control.profile != TARN_PROFILE_PLAIN) {
    check_result(tarn_set_profile(handle_, control.profile), "tarn_set_profile");
  }
  for (const OptionSetting& each : control.options) {
    check_result(tarn_set_option(handle_, each.option, each.value), "tarn_set_option");
  }
  check_result(tarn_set_writable_callback(handle_, &Endpoint::on_writable, this),
               "tarn_set_writable_callback");
}

void Endpoint::change(const OptionSetting& setting) {
  if (!is_open() || !is_begun_) return;
  world_.event("{} sets option {} to {}", plan_.name, static_cast<int>(setting.option),
               static_cast<uint64_t>(setting.value));
  watch_->on_change();
  {
    const Call call(*this);
    check_result(tarn_set_option(handle_, setting.option, setting.value), "tarn_set_option");
  }
  watch_->on_change();
}

void Endpoint::check_result(int result, const char* call) const {
  if (result == 0 || (destroyed_ && (result == -ESHUTDOWN || result == -EBADF))) return;
  fail("{}: {} returns {}", plan_.name, call, result);
}

// Sometimes asks for the room, if nobody else is at it.
ControlWatch::Attempt Endpoint::begin_attempt(size_t size) {
  if (!watch_) return {};
  ControlWatch::Attempt attempt = watch_->begin(size);
  if (feeding_ || !callers_.empty() || !watch_->is_alone() || !is_begun_ || !random_.chance(0.3))
    return attempt;
  attempt.room = send_room();
  return attempt;
}

size_t Endpoint::send_room() {
  const InsideLibrary inside;
  return tarn_send_room(handle_);
}

int Endpoint::try_send(size_t size) {
  if (!is_open()) return -ESHUTDOWN;
  begin_control();
  const std::string bytes = draw_bytes(size);
  world_.event("{} try {} bytes", plan_.name, size);
  const ControlWatch::Attempt attempt = begin_attempt(size);
  out_.open_message(bytes, true);
  const uint32_t tick = world_.tick();
  watch_->begin_try();
  int result = 0;
  {
    const Call call(*this);
    result = tarn_try_send_reliable(handle_, bytes.data(), size);
  }
  world_.event("{} try ends, {}", plan_.name, static_cast<uint64_t>(-result));
  watch_->end_try(attempt, result);
  watch_->end();
  if (result == 0) note_activity(tick);
  if (result == -ESHUTDOWN || result == -EBADF) check_result(result, "tarn_try_send_reliable");
  const auto fate = result == 0 ? SentMessages::Fate::kTaken : SentMessages::Fate::kRefused;
  out_.close_message(destroyed_ || cut_off_ ? SentMessages::Fate::kUnknown : fate);
  return result;
}

void Endpoint::on_writable(void* session, void* self) {
  Endpoint& endpoint = *static_cast<Endpoint*>(self);
  const Callback callback(endpoint, "writable");
  endpoint.world_.event("{} is told of room", endpoint.name());
  if (session != endpoint.handle_) fail("{}: told of another session's room", endpoint.name());
  endpoint.watch_->begin_telling();
  endpoint.world_.scheduler().wake(&endpoint);
  endpoint.writer_.go_on();
  endpoint.act_in_callback();
  endpoint.watch_->end_telling();
}

void Endpoint::pause(bool on) {
  if (!is_open() || !watch_) return;
  begin_control();
  if (on && calm_) return;
  const TaskId self = world_.scheduler().self();
  world_.event("{} {}", plan_.name, on ? "pauses" : "resumes");
  const ControlWatch::Pause pause = watch_->begin_pause(on);
  const auto entry = resumers_.insert(self);
  ++pauses_;
  int result = 0;
  {
    const Call call(*this);
    result = tarn_pause_receive(handle_, on ? 1 : 0);
  }
  resumers_.erase(entry);
  check_result(result, "tarn_pause_receive");
  watch_->end_pause(pause, others_deliver(self));
}

bool Endpoint::others_deliver(TaskId task) const {
  const bool others_resume =
      std::any_of(resumers_.begin(), resumers_.end(), [task](TaskId each) { return each != task; });
  return others_resume || (feeding_ && feeder_ != task);
}

// Of another conversation than the one that this end keeps to.
bool Endpoint::is_foreign(std::string_view datagram) {
  if (!watch_) return false;
  uint32_t conv = 0;
  for (const Segment& each : visible_segments(datagram)) {
    if (each.type != Segment::kConv || each.body.size() < 4) continue;
    conv = static_cast<uint32_t>(number_at(each.body, 0)) << 16 | number_at(each.body, 2);
    break;
  }
  if (limits_.is_strict && own_conv_ != 0 && conv != own_conv_) return true;
  if (own_conv_ == 0) own_conv_ = conv;
  return false;
}

void Endpoint::count_fed(std::string_view datagram) {
  watch_->on_feed();
  coming_.reset();
  rejections_ = 0;
  pauses_at_feed_ = resumers_.empty() ? pauses_ : UINT64_MAX;
  if (is_dropped_) return;
  has_received_ = true;
  TarnStats& seen = watch_->seen();
  ++seen.datagrams_received;
  seen.datagram_bytes_received += datagram.size();
  for (const Segment& each : visible_segments(datagram)) {
    if (each.type != Segment::kReliable || each.body.size() <= 2) continue;
    ++seen.segments_received;
    coming_ = in_.number_of(number_at(each.body, 0));
  }
  // The session may use the room before its input returns.
  tell_acknowledged(datagram);
}

void Endpoint::count_arrival() {
  watch_->on_feed();
  if (is_dropped_) return;
  // The session has looked at the clock some time since it was fed.
  const uint32_t quiet = world_.tick() - received_at_tick_;
  if (limits_.peer_timeout != 0 && quiet >= limits_.peer_timeout) {
    peers_quiet_ended_ = world_.scheduler().now();
  }
  received_at_tick_ = fed_at_tick_;
  if (!coming_) return;
  if (rejections_ > 0) {
    watch_->seen().segments_rejected += rejections_;
  } else if (!taken_.insert(*coming_).second) {
    ++watch_->seen().segments_repeated;
    is_repeat_unsure_ = is_repeat_unsure_ || pauses_at_feed_ != pauses_;
  }
}

bool Endpoint::is_far_ahead() const {
  return watch_ && limits_.has_options && coming_ && *coming_ > in_.in_order() + kMostAhead - 1;
}

// What was withheld and what came since the session was resumed.
void Endpoint::observe_control(const WindowUse& use) const {
  if (use.early + use.withheld > 2 * size_t{limits_.most_early}) {
    fail("{}: {} packets and {} messages are kept for later, with a receive window of {}",
         plan_.name, use.early, use.withheld, limits_.most_early);
  }
  const uint64_t most = limits_.most_queued + uint64_t{limits_.most_sent} * limits_.mtu;
  if (use.queued > most) fail("{}: {} bytes wait, allowed {}", plan_.name, use.queued, most);
}

uint64_t Endpoint::segments_to_send() const {
  if (!watch_ || !is_open()) return 0;
  const WindowUse use = look_into(handle_, world_.locks());
  return (use.queued + writer_.bytes()) / limits_.mtu + use.queued_messages + writer_.waiting();
}

TarnStats Endpoint::stats() {
  TarnStats stats;
  const Call call(*this);
  check_result(tarn_get_stats(handle_, &stats, sizeof stats), "tarn_get_stats");
  return stats;
}

std::string Endpoint::counter_difference() {
  if (!is_counted() || !is_open() || cut_off_) return {};
  const bool is_trusted =
      out_.is_trusted() && !is_repeat_unsure_ && errors_[TARN_ERROR_MESSAGE_TOO_LARGE] == 0;
  const TarnStats now = stats();
  if (!is_open()) return {};
  const uint32_t since = world_.tick() - received_at_tick_;
  const uint64_t slack = kLookMs + 10 * world_.scheduler().preemption().longest_stall_ns / kNsPerMs;
  const uint64_t off =
      std::max(since, now.since_received_ms) - std::min(since, now.since_received_ms);
  if (has_received_ && !world_.clock_is_behind_itself() && off > slack) {
    return fmt::format("since_received_ms is {} after {} ms", now.since_received_ms, since);
  }
  return watch_->find_difference(now, is_trusted);
}

void Endpoint::check_at_rest() {
  if (!is_counted() || !is_open()) return;
  const TarnStats now = stats();
  if (!is_open()) return;
  if (now.outstanding_segments + now.outstanding_bytes + now.queued_messages + now.queued_bytes +
          now.buffered_segments + now.oldest_outstanding_ms !=
      0) {
    fail("{}: {} segments of {} bytes are outstanding, {} messages of {} bytes queued, {} buffered",
         plan_.name, now.outstanding_segments, now.outstanding_bytes, now.queued_messages,
         now.queued_bytes, now.buffered_segments);
  }
  if (now.rtt_min_us > now.rtt_us) {
    fail("{}: a round trip of {} us at least, {} on average", plan_.name, now.rtt_min_us,
         now.rtt_us);
  }
}

}  // namespace tarn_sim
