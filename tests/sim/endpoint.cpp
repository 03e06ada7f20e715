#include "tests/sim/endpoint.h"

#include <stdio.h>

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

#include "tarn/io.h"
#include "tests/sim/boundary.h"
#include "tests/sim/endpoint_calls.h"
#include "tests/sim/failure.h"

namespace tarn_sim {
namespace {

std::map<TaskId, Endpoint*> opening;  // by the tasks that create their sessions

constexpr size_t kSegmentHead = 3;
constexpr size_t kUnaSegment = 5;
constexpr size_t kLeastFeedback = 8;
constexpr size_t kInPlacePrefix = 12;
constexpr size_t kMostListed = 32767;
constexpr size_t kMostInFlight = 256;  // segments of messages whose sending has begun

}  // namespace

Endpoint::Endpoint(World& world, Plan plan, Random random, Stream& out, Stream& in, Link& link)
    : world_(world),
      plan_(std::move(plan)),
      limits_(plan_.settings, plan_.control),
      random_(random),
      out_(out),
      in_(in),
      link_(link),
      replies_left_(plan_.habits.replies),
      writer_([this](size_t size) { return try_send(size); }) {
  if (plan_.control.on) watch_ = std::make_unique<ControlWatch>(world, plan_.name, limits_);
}

void Endpoint::open(uint32_t conv, void* io) {
  quiet_since_ = received_at_tick_ = world_.tick();
  io_ = io;
  conv_ = own_conv_ = conv;
  const TaskId self = world_.scheduler().self();
  opening[self] = this;
  void* handle = nullptr;
  {
    const InsideLibrary inside;
    handle = tarn_create();
  }
  opening.erase(self);
  if (handle == nullptr) fail("{}: no session", plan_.name);
  if (handle_ == nullptr) use(handle);
}

void Endpoint::use(void* handle) {
  const InsideLibrary inside;
  handle_ = handle;
  if (plan_.control.on && !plan_.control.late) begin_control();
  set_callbacks();
}

void Endpoint::seen_in_log(World& world, const char* line) {
  constexpr uint64_t kLongestLook = 100'000'000;  // ns; some passes of the re-sends
  const auto found = opening.find(world.scheduler().self());
  void* handle = nullptr;
  if (found == opening.end() || sscanf(line, "tarn session start %p", &handle) != 1) return;
  Endpoint& endpoint = *found->second;
  if (!endpoint.random_.chance(0.5)) return;
  endpoint.use(handle);
  for (uint64_t i = endpoint.random_.between(0, 2); i > 0; --i) endpoint.send_reliable(100);
  world.scheduler().sleep(endpoint.random_.between(1, kLongestLook));
}

void Endpoint::set_callbacks() {
  tarn_set_error_callback(handle_, &Endpoint::on_error, this);
  tarn_set_recv_reliable_callback(handle_, &Endpoint::on_reliable, this);
  tarn_set_recv_unreliable_callback(handle_, &Endpoint::on_unreliable, this);
  if (io_ != nullptr) {
    // Once it is destroyed, its address may be the next handle's.
    if (!cut_off_) tarn_attach_io(handle_, io_);
  } else {
    tarn_set_output_callback(handle_, &Endpoint::on_output, this);
  }
  if (conv_ != 0) tarn_set_conv(handle_, conv_);
}

void Endpoint::set_again() {
  if (!is_open()) return;
  const InsideLibrary inside;
  set_callbacks();
}

void Endpoint::destroy(unsigned int wait_ms) {
  if (!is_open()) return;
  destroyed_ = true;
  world_.event("{} destroy, wait {} ms", plan_.name, wait_ms);
  const uint64_t begun = world_.scheduler().now();
  int result = 0;
  {
    const InsideLibrary inside;
    result = tarn_wait_destroy(handle_, wait_ms);
  }
  gone_ = true;
  if (result != 0) fail("{}: cannot be destroyed", plan_.name);
  check_wait(world_.scheduler().now() - begun, wait_ms);
}

// It sleeps in steps of at most 100 ms, so that much may come on top.
void Endpoint::check_wait(uint64_t waited_ns, unsigned int wait_ms) const {
  const uint64_t steps = wait_ms + std::min(wait_ms, 100U);
  const uint64_t held_up = 20 * world_.scheduler().preemption().longest_stall_ns;
  if (waited_ns > steps * kNsPerMs + held_up + 50 * kNsPerMs + world_.timer_lag_ns()) {
    fail("{}: its destruction took {} ms, allowed to wait {}", plan_.name, waited_ns / kNsPerMs,
         wait_ms);
  }
}

bool Endpoint::is_inside(TaskId task) const {
  return callers_.count(task) != 0 || (feeding_ && feeder_ == task);
}

bool Endpoint::is_deleted() const { return !is_registered(handle_); }

std::string Endpoint::draw_bytes(size_t size) {
  std::string bytes(size, '\0');
  for (size_t at = 0; at < size; at += sizeof(uint64_t)) {
    const uint64_t word = random_.bits();
    bytes.replace(at, std::min(size - at, sizeof word), reinterpret_cast<const char*>(&word),
                  std::min(size - at, sizeof word));
  }
  return bytes;
}

void Endpoint::send_reliable(size_t size) {
  if (!is_open()) return;
  std::string bytes = draw_bytes(size);
  world_.event("{} send {} bytes", plan_.name, size);
  const ControlWatch::Attempt attempt = begin_attempt(size);
  out_.open_message(bytes);
  const uint32_t tick = world_.tick();
  {
    const Call call(*this);
    tarn_send_reliable(handle_, bytes.data(), static_cast<int>(size));
  }
  const bool found_room = out_.close_message(destroyed_ || cut_off_);
  if (watch_ && !destroyed_ && !cut_off_) watch_->end_send(attempt, found_room);
  if (watch_) watch_->end();
  if (!watch_ || (found_room && !cut_off_)) note_activity(tick);
}

void Endpoint::send_unreliable(size_t size) {
  if (!is_open()) return;
  std::string bytes = draw_bytes(size);
  world_.event("{} send {} bytes unreliably", plan_.name, size);
  if (watch_) ++watch_->seen().unreliable_sent;
  const uint32_t tick = world_.tick();
  {
    const Call call(*this);
    tarn_send_unreliable(handle_, bytes.data(), static_cast<int>(size));
  }
  note_activity(tick);
}

void Endpoint::send_in_place(size_t size) {
  if (!is_open()) return;
  std::string bytes = draw_bytes(kInPlacePrefix + size);
  world_.event("{} send {} bytes in place", plan_.name, size);
  if (watch_) ++watch_->seen().unreliable_sent;
  const Call call(*this);
  tarn_send_unreliable_nocp(handle_, bytes.data(), static_cast<int>(size));
}

void Endpoint::feed(std::string datagram) {
  if (!takes_datagrams()) return;
  begin_feed(datagram);
  {
    const InsideLibrary inside;
    // The library may write into what it is given.
    tarn_input(handle_, datagram.data(), static_cast<int>(datagram.size()));
  }
  end_feed();
}

void Endpoint::begin_feed(std::string datagram) {
  if (!takes_datagrams()) return;
  world_.event("{} gets {} bytes", plan_.name, datagram.size());
  is_dropped_ = is_foreign(datagram);
  expect_of(datagram);
  if (watch_) count_fed(datagram);
  feeder_ = world_.scheduler().self();
  feeding_ = true;
  feeding_since_ = world_.scheduler().points();
  fed_at_tick_ = world_.tick();
  fed_ = std::move(datagram);
}

void Endpoint::end_feed() {
  if (!std::exchange(feeding_, false)) return;
  if (!is_dropped_) note_activity(fed_at_tick_);
  if (watch_) {
    count_arrival();
  } else {
    tell_acknowledged(fed_);
  }
  if (destroyed_) return;
  if (!expected_.empty() || expected_byes_ != 0) {
    fail("{}: a datagram was taken, but not all that is in it was reported", plan_.name);
  }
}

void Endpoint::expect_of(std::string_view datagram) {
  expected_.clear();
  expected_byes_ = 0;
  if (is_dropped_) return;
  for (const Segment& each : visible_segments(datagram)) {
    if (each.type == Segment::kUnreliable && !each.body.empty()) expected_.emplace_back(each.body);
    if (each.type == Segment::kBye) ++expected_byes_;
    if (each.type == Segment::kReliable && each.body.size() > 2) in_.fed(number_at(each.body, 0));
  }
}

void Endpoint::tell_acknowledged(std::string_view datagram) {
  for (const Segment& each : visible_segments(datagram)) {
    if (each.type == Segment::kUna && each.body.size() == 2) {
      out_.acknowledged_up_to(number_at(each.body, 0));
    }
    if (each.type != Segment::kAck || each.body.size() % 2 != 0) continue;
    for (size_t at = 0; at < each.body.size(); at += 2) out_.acknowledged(number_at(each.body, at));
  }
}

int Endpoint::on_output(char* data, int len, void* self) {
  Endpoint& endpoint = *static_cast<Endpoint*>(self);
  const Callback callback(endpoint, "output");
  const std::string_view datagram(data, static_cast<size_t>(len));
  endpoint.put_on_link(datagram, endpoint.emitted(datagram));
  endpoint.act_in_callback();
  return 0;
}

// The socket's lock is held, so the application stays out of this.
void Endpoint::sent(std::string_view datagram, bool accepted) {
  const unsigned int allowed = world_.runs_timers() ? 2 : 1;
  if (world_.locks().held_count() > allowed) fail("{}: a lock is held across a send", plan_.name);
  observe();
  const bool feedback_only = emitted(datagram);
  if (accepted) {
    put_on_link(datagram, feedback_only);
  } else {
    world_.event("{} has a send refused", plan_.name);
  }
}

bool Endpoint::emitted(std::string_view datagram) {
  const auto emission = read_emission(datagram);
  if (!emission) fail("{}: emits {} bytes that are no datagram", plan_.name, datagram.size());
  if (emission->kind == Emission::Kind::kReliable) {
    world_.event("{} emits {} bytes, segment {}", plan_.name, datagram.size(), emission->seq);
    const bool is_first = out_.emitted(*emission);
    if (watch_) ++(is_first ? watch_->seen().segments_sent : watch_->seen().segments_resent);
  } else {
    world_.event("{} emits {} bytes", plan_.name, datagram.size());
    check_purpose(*emission);
  }
  if (watch_) {
    ++watch_->seen().datagrams_sent;
    watch_->seen().datagram_bytes_sent += datagram.size();
  }
  check_size(*emission);
  in_.check_feedback(*emission);
  return emission->kind == Emission::Kind::kFeedback;
}

void Endpoint::put_on_link(std::string_view datagram, bool feedback_only) {
  link_.send(world_.scheduler().now(), datagram, feedback_only);
  world_.scheduler().wake(&link_);
}

// A datagram with nothing in it is a sign of life.
void Endpoint::check_purpose(const Emission& emission) const {
  if (emission.kind != Emission::Kind::kFeedback || emission.una || emission.acks) return;
  if (!limits_.keeps_alive) fail("{}: a datagram with nothing in it leaves", plan_.name);
  if (!has_received_) fail("{}: a sign of life before one of the peer's", plan_.name);
}

// Feedback may fill a datagram up to the mtu. One corner is let be: beside a payload that leaves 6
// or 7 bytes, an una is followed by all acknowledgements there are.
void Endpoint::check_size(const Emission& emission) const {
  size_t data = 0;
  if (emission.kind == Emission::Kind::kReliable) data = kSegmentHead + 2 + emission.payload.size();
  if (emission.kind == Emission::Kind::kUnreliable) data = kSegmentHead + emission.payload.size();
  size_t feedback = emission.una ? kUnaSegment : 0;
  if (emission.acks) feedback += kSegmentHead + 2 * emission.acks->size();
  if (feedback == 0) return;
  if (data >= limits_.mtu) fail("{}: feedback beside a full segment", plan_.name);
  size_t budget = limits_.mtu - data;
  if (emission.una && (budget == 6 || budget == 7) && !(watch_ && limits_.begins_with_options)) {
    return;
  }
  // Room for both heads, which is within what a full segment takes.
  if (watch_ && limits_.has_options) budget = std::max(budget, kLeastFeedback);
  if (feedback > budget) {
    fail("{}: {} bytes of feedback where {} have room", plan_.name, feedback, budget);
  }
}

int Endpoint::on_reliable(char* data, int len, void* self) {
  Endpoint& endpoint = *static_cast<Endpoint*>(self);
  const Callback callback(endpoint, "reliable");
  endpoint.world_.event("{} got {} bytes", endpoint.name(), len);
  if (endpoint.watch_) endpoint.watch_->on_delivery(static_cast<size_t>(len));
  endpoint.in_.delivered(std::string_view(data, static_cast<size_t>(len)));
  endpoint.act_in_callback();
  return 0;
}

int Endpoint::on_unreliable(char* data, int len, void* self) {
  Endpoint& endpoint = *static_cast<Endpoint*>(self);
  const Callback callback(endpoint, "unreliable");
  const std::string_view message(data, static_cast<size_t>(len));
  endpoint.world_.event("{} got {} bytes unreliably", endpoint.name(), len);
  auto& expected = endpoint.expected_;
  if (!endpoint.feeding_ || expected.empty() || expected.front() != message) {
    fail("{}: an unreliable message of {} bytes that did not come now", endpoint.name(), len);
  }
  expected.pop_front();
  if (endpoint.watch_) ++endpoint.watch_->seen().unreliable_delivered;
  endpoint.act_in_callback();
  return 0;
}

int Endpoint::on_error(TarnError code, void* self) {
  Endpoint& endpoint = *static_cast<Endpoint*>(self);
  const Callback callback(endpoint, "error");
  endpoint.world_.event("{} error {}", endpoint.name(), static_cast<int>(code));
  ++endpoint.errors_[code];
  endpoint.raised(code);
  endpoint.act_in_callback();
  return 0;
}

void Endpoint::raised(TarnError code) {
  const bool inside_input = feeding_ && feeder_ == world_.scheduler().self();
  switch (code) {
    case TARN_ERROR_SEND_OVERFLOW:
      // The window of a destroyed session is not looked at any more.
      if (!destroyed_ && !watch_ &&
          (!out_.is_sending() || send_window_full_at_ < out_.sending_since())) {
        fail("{}: overflow of a window with room", plan_.name);
      }
      if (!cut_off_) out_.refused();
      break;
    case TARN_ERROR_RECV_REJECTED:
      if (!inside_input || (recv_window_full_at_ < feeding_since_ && !is_far_ahead())) {
        fail("{}: a segment is refused by a window with room", plan_.name);
      }
      ++rejections_;
      break;
    case TARN_ERROR_BYE:
      if (!inside_input || expected_byes_ == 0) fail("{}: bye that nobody said", plan_.name);
      --expected_byes_;
      break;
    case TARN_ERROR_INACTIVE:
      check_inactive();
      break;
    case TARN_ERROR_MESSAGE_TOO_LARGE:
      if (!watch_) fail("{}: a message is too large for a plain session", plan_.name);
      watch_->on_too_large();
      break;
    case TARN_ERROR_UNREACHABLE:
      fail("{}: error {} that nobody has asked for", plan_.name, static_cast<int>(code));
  }
}

void Endpoint::note_activity(uint32_t tick_before) {
  if (world_.tick() - quiet_since_ > limits_.active_timeout) {
    long_quiet_ended_ = world_.scheduler().now();
  }
  // The clock may have been set back meanwhile, and the session has looked at it then.
  const uint32_t tick_after = world_.tick();
  const bool stepped_back = static_cast<int32_t>(tick_after - tick_before) < 0;
  quiet_since_ = stepped_back ? tick_after : tick_before;
}

void Endpoint::check_inactive() const {
  if (!world_.runs_timers()) fail("{}: silence is reported by no timer", plan_.name);
  const uint32_t quiet = world_.tick() - quiet_since_;
  const uint32_t peers_quiet = world_.tick() - received_at_tick_;
  if (quiet > limits_.active_timeout) return;
  if (limits_.peer_timeout != 0 && peers_quiet >= limits_.peer_timeout) return;
  // A call that is under way may have looked at the clock before it was set back.
  if (world_.clock_is_behind_itself()) return;
  // The silence may have been broken while the worker was on its way here.
  const uint64_t longest_way =
      10 * world_.scheduler().preemption().longest_stall_ns + plan_.habits.slow_ns + kNsPerMs;
  const uint64_t ended = std::max(long_quiet_ended_, peers_quiet_ended_);
  if (ended == 0 || world_.scheduler().now() - ended > longest_way) {
    fail("{}: silence is reported after {} ms, {} ms of the peer's", plan_.name, quiet,
         peers_quiet);
  }
}

void Endpoint::act_in_callback() {
  if (calm_) return;
  const Habits& habits = plan_.habits;
  if (random_.chance(habits.slow_share)) {
    world_.scheduler().sleep(random_.between(1, habits.slow_ns));
  }
  if (replies_left_ > 0 && random_.chance(habits.reply_share)) reply();
  if (random_.chance(plan_.control.pause_share)) pause(random_.chance(0.5));
  if (random_.chance(habits.destroy_share)) destroy(0);
  if (random_.chance(habits.orphan_share)) destroy_orphan();
  leave_update();
}

void Endpoint::reply() {
  --replies_left_;
  if (random_.chance(0.5)) {
    const uint64_t size = random_.between(1, 300);
    if (random_.chance(plan_.control.try_share)) {
      try_send(std::min<size_t>(size, limits_.longest_message()));
    } else {
      send_reliable(size);
    }
  } else {
    send_unreliable(random_.between(1, 300));
  }
}

// On the worker, that is before the worker has heard of the new session's timers.
void Endpoint::destroy_orphan() {
  void* orphan = nullptr;
  world_.scheduler().join(world_.scheduler().spawn("mother", [&orphan] {
    const InsideLibrary inside;
    orphan = tarn_create();
  }));
  const InsideLibrary inside;
  tarn_destroy(orphan);
}

// Not out of a call on the session, which would end as well.
void Endpoint::leave_update() {
  if (destroyed_ || is_inside(world_.scheduler().self()) || !world_.leaves_update(random_)) return;
  out_.resend_left();
  world_.event("{} leaves the update", plan_.name);
  throw LeftCallback();
}

void Endpoint::observe() {
  if (!takes_datagrams() || (destroyed_ && is_deleted())) return;
  const WindowUse use = look_into(handle_, world_.locks());
  if (!use.changing && use.counted != use.kept) {
    fail("{}: the send window counts {} packets and keeps {}", plan_.name, use.counted, use.kept);
  }
  // Who has begun to send without a look at the room goes on, and what an acknowledgement takes out
  // of the window is still there while its place is used.
  const size_t late = plan_.control.late ? kMostInFlight : 0;
  const size_t leaving = watch_ && feeding_ ? limits_.most_sent : 0;
  if (use.kept > limits_.most_sent + late + leaving) {
    fail("{}: {} packets in a send window of {}", plan_.name, use.kept, limits_.most_sent);
  }
  if (use.early > limits_.most_early) {
    fail("{}: {} packets in a receive window of {}", plan_.name, use.early, limits_.most_early);
  }
  if (watch_) observe_control(use);
  if (use.listed > kMostListed) fail("{}: {} numbers to acknowledge", plan_.name, use.listed);
  const uint64_t point = world_.scheduler().points();
  if (use.kept == limits_.most_sent) send_window_full_at_ = point;
  if (use.early + use.withheld >= limits_.least_early) recv_window_full_at_ = point;
}

unsigned int Endpoint::kept() const {
  return is_open() ? look_into(handle_, world_.locks()).counted : 0;
}

}  // namespace tarn_sim
