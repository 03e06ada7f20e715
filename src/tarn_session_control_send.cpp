// TarnSession: reliable sending with a look at the room that there is.
#include <errno.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "src/session_control.h"
#include "src/tarn_log.h"
#include "src/tarn_session.h"
#include "src/tarn_session_segments.h"
#include "src/tarn_timer.h"

namespace {

uint64_t monotonic_us() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

// While the writable callback runs. If it throws, others have left it to this one to look again.
class Telling {
 public:
  explicit Telling(SessionControl& control) : control_(control) {}
  ~Telling() {
    const oxutils::scoped_lock hold(control_.send_lock);
    control_.is_telling = false;
    if (is_owed) control_.is_owed = true;
  }
  Telling(const Telling&) = delete;
  Telling& operator=(const Telling&) = delete;

  bool is_owed = true;

 private:
  SessionControl& control_;
};

}  // namespace

// The memory of some segments, all of it there before any number is taken.
class TarnSession::Segments {
 public:
  Segments(SegmentPool& pool, size_t count, size_t size) {
    if (count > 0) first_ = pool.take(size);
    if (count > 1) others_ = pool.take(count - 1, size);
  }
  // Requires: one is left.
  SegmentNode take() {
    if (!first_.empty()) return std::move(first_);
    SegmentNode last = std::move(others_.back());
    others_.pop_back();
    return last;
  }

 private:
  SegmentNode first_;
  std::vector<SegmentNode> others_;
};

bool TarnSession::begin_message(Bytes message) {
  const unsigned char course = course_;
  if ((course & kStopped) != 0) return false;
  if ((course & kControlled) == 0) {
    mark_sent();
    return true;
  }
  send_controlled(message);
  return false;
}

SendRoom TarnSession::room(const SessionControl& control) const {
  const unsigned int window = send_window_.limit();
  return SendRoom{segment_size(),
                  window,
                  control.peer_window.ahead(window),
                  static_cast<uint64_t>(control.options.own(TARN_OPTION_SEND_QUEUE)),
                  control.outstanding.count(),
                  control.outstanding.span(),
                  control.queue.bytes(),
                  control.queue.empty()};
}

// Returns the tick.
inline unsigned int TarnSession::begin_run(SessionControl& control, const Run& run) {
  const unsigned int now = TarnTimerQueue::cur_tick();
  last_active_ = now;
  if ((course_ & kUnsent) != 0) mark_sent();
  control.counters.segments_sent.add(run.count);
  if (run.kept > 0 && !control.round_trip.is_measuring()) {
    control.round_trip.on_sent(run.first, monotonic_us());
  }
  return now;
}

inline void TarnSession::keep(SessionControl& control, const Fragment& fragment,
                              SegmentNode&& segment, unsigned int now) {
  write_segment(segment.mapped(), fragment);
  control.outstanding.add(now);
  send_window_.keep(fragment.seq, std::move(segment));
}

// The usual message, in one segment: without the lists that several need.
__attribute__((always_inline)) inline TarnSession::Run TarnSession::put_whole(
    SessionControl& control, Bytes message) {
  SegmentNode segment = send_window_.pool().take(wire::kReliableHeadSize + message.size);
  control.outstanding.reserve(1);
  control.counters.messages_sent.add(message.size);
  const Run run{control.outstanding.next(), 1, 1, message.size};
  const unsigned int now = begin_run(control, run);
  keep(control, Fragment{run.first, wire::kWhole, message}, std::move(segment), now);
  return run;
}

int TarnSession::try_send_reliable(const char* data, size_t size) {
  if (data == nullptr || size == 0) return -EINVAL;
  if (is_ended()) return -ESHUTDOWN;
  SessionControl& control = this->control();
  const Bytes message{data, size};
  Run run;
  {
    const oxutils::scoped_lock hold(control.send_lock);
    const SendRoom room = this->room(control);
    if (room.has_room_at_once(size)) {
      run = put_whole(control, message);
    } else if (size <= room.bytes()) {
      run = put(control, message, room);
    } else {
      return refuse(control, room, size);
    }
  }
  emit_run(message, run);
  if (control.is_owed) drain();
  return 0;
}

int TarnSession::refuse(SessionControl& control, const SendRoom& room, size_t size) {
  if (size > room.most_bytes()) return -EMSGSIZE;
  control.refused.add(size);
  control.counters.messages_refused.add();
  return -EAGAIN;
}

// tarn_send_reliable(), which has to do something with every message.
void TarnSession::send_controlled(Bytes message) {
  if (message.size > 0 && segment_size() == 0) {
    log_no_mtu(message);
    return;
  }
  SessionControl& control = this->control();
  Run run{};
  bool is_refused = false;
  {
    const oxutils::scoped_lock hold(control.send_lock);
    const SendRoom room = this->room(control);
    if (std::max<size_t>(message.size, 1) <= room.bytes()) {
      run = put(control, message, room);
    } else {
      control.counters.messages_refused.add();
      is_refused = room.has_queue() || room.segments_of(message.size) > SendRoom::kMostAhead;
      if (!is_refused) run = put_past_limit(control, message, room);
    }
  }
  if (is_refused) overflow();
  emit_run(message, run);
  if (control.is_owed) drain();
}

// What does not go into the window at once waits.
TarnSession::Run TarnSession::put(SessionControl& control, Bytes message, const SendRoom& room) {
  const size_t free = room.is_queue_empty ? room.free_segments() : 0;
  const size_t count = std::min(free, room.segments_of(message.size));
  const size_t at_once = std::min(message.size, count * room.segment_size);
  Segments segments(send_window_.pool(), count,
                    wire::kReliableHeadSize + std::min(message.size, room.segment_size));
  control.outstanding.reserve(count);
  if (at_once < message.size || count == 0) {
    control.queue.push(message.data + at_once, message.size - at_once, count == 0);
    send_window_.set_more(true);
  }
  control.counters.messages_sent.add(message.size);
  const Run run{control.outstanding.next(), count, count, room.segment_size};
  keep_run(control, message, run, segments);
  return run;
}

// Takes numbers for all of it, as without options of its own: what the window does not keep is sent
// once.
TarnSession::Run TarnSession::put_past_limit(SessionControl& control, Bytes message,
                                             const SendRoom& room) {
  const size_t count = room.segments_of(message.size);
  const size_t free = room.is_queue_empty ? room.free_segments() : 0;
  const Run run{control.outstanding.next(), count, std::min(free, count), room.segment_size};
  forget_lapped(control, count);
  Segments segments(send_window_.pool(), run.kept,
                    wire::kReliableHeadSize + std::min(message.size, room.segment_size));
  control.outstanding.reserve(count);
  keep_run(control, message, run, segments);
  return run;
}

// Whoever has sent past a full window for so long that the numbers begin again has lost the oldest.
void TarnSession::forget_lapped(SessionControl& control, size_t count) {
  while (control.outstanding.span() + count >= Outstanding::kNumbers) {
    const unsigned short oldest = control.outstanding.oldest();
    send_window_.ack(oldest);
    control.outstanding.remove(oldest);
  }
}

void TarnSession::keep_run(SessionControl& control, Bytes message, const Run& run,
                           Segments& segments) {
  const unsigned int now = begin_run(control, run);
  const Fragments fragments{message, run.segment_size, run.first};
  for (size_t i = 0; i < run.kept; ++i) {
    keep(control, fragments.at(i), segments.take(), now);
  }
  for (size_t i = run.kept; i < run.count; ++i) {
    control.outstanding.add(now);
    control.outstanding.remove(fragments.at(i).seq);
  }
}

// Kept before it leaves, so that an acknowledgement on the same stack finds it; from the caller's
// bytes, since by then the window may have let it go.
void TarnSession::emit_run(Bytes message, const Run& run) {
  const Fragments fragments{message, run.segment_size, run.first};
  for (size_t i = 0; i < run.count; ++i) {
    const Fragment fragment = fragments.at(i);
    char head[wire::kReliableHeadSize];
    wire::put_reliable_head(head, fragment.seq, fragment.flag, fragment.payload.size);
    emit(Bytes{head, sizeof head}, fragment.payload, kWithFeedback, kTested);
    log_sent(fragment);
    if (i >= run.kept) overflow();
  }
}

// A segment that met a full window on the short way, which the session has left meanwhile: others
// have taken its place.
void TarnSession::keep_past_limit(const Fragment& fragment) {
  SegmentNode segment = send_window_.pool().take(wire::kReliableHeadSize + fragment.payload.size);
  write_segment(segment.mapped(), fragment);
  send_window_.keep(fragment.seq, std::move(segment));
}

// A segment that was sent on the short way while the session left it. False when the session has
// been stopped.
bool TarnSession::adopt(unsigned short seq) {
  if (!active_unless<kStopped>()) return false;
  SessionControl& control = this->control();
  const oxutils::scoped_lock hold(control.send_lock);
  if (send_window_.keeps(seq)) control.outstanding.adopt(seq, TarnTimerQueue::cur_tick());
  return true;
}

size_t TarnSession::send_room() {
  if (is_ended()) return 0;
  SessionControl& control = this->control();
  const oxutils::scoped_lock hold(control.send_lock);
  return static_cast<size_t>(std::min<uint64_t>(room(control).bytes(), SIZE_MAX));
}

int TarnSession::set_writable_callback(TarnWritableCallback callback, void* user) {
  if (is_ended()) return -ESHUTDOWN;
  control().writable_cb.set(callback, user);
  tell_writable();
  return 0;
}

bool TarnSession::begin_resend(unsigned char course, unsigned short seq) {
  if ((course & kStopped) != 0) return false;
  SessionControl& control = this->control();
  control.counters.segments_resent.add();
  const oxutils::scoped_lock hold(control.send_lock);
  if (control.round_trip.concerns(seq)) control.round_trip.on_resent(monotonic_us());
  return true;
}

// The window first: a segment that is adopted meanwhile is found in it, or here.
void TarnSession::got_acks_controlled(const DatagramReader::Segment& seg) {
  got_ack(Bytes{seg.body, seg.size});
  if (seg.size % wire::kSeqSize != 0) return;
  SessionControl& control = this->control();
  const unsigned int now = TarnTimerQueue::cur_tick();
  const oxutils::scoped_lock hold(control.send_lock);
  control.is_unsettled = true;
  for (size_t at = 0; at < seg.size; at += wire::kSeqSize) {
    const unsigned short seq = wire::get_uint16(seg.body + at);
    if (control.outstanding.is_within(seq)) {
      control.peer_window.on_acknowledged(control.outstanding.age(seq, now));
    }
    if (control.outstanding.remove(seq) && control.round_trip.concerns(seq)) {
      control.round_trip.on_acknowledged(monotonic_us());
    }
  }
}

void TarnSession::got_una_controlled(const DatagramReader::Segment& seg) {
  if (seg.size != wire::kSeqSize) {
    got_una(Bytes{seg.body, seg.size});
    return;
  }
  SessionControl& control = this->control();
  const unsigned short una = wire::get_uint16(seg.body);
  {
    const oxutils::scoped_lock hold(control.send_lock);
    if (!control.outstanding.is_una(una) && control.options.any()) return;
  }
  got_una(Bytes{seg.body, seg.size});
  const oxutils::scoped_lock hold(control.send_lock);
  control.is_unsettled = true;
  if (!control.outstanding.is_una(una)) {
    control.outstanding.remove_all_but_later(una);
    return;
  }
  if (control.round_trip.is_covered_by(una)) control.round_trip.on_acknowledged(monotonic_us());
  release(control, una);
}

void TarnSession::release(SessionControl& control, unsigned short una) {
  Outstanding& outstanding = control.outstanding;
  PeerWindow& peer_window = control.peer_window;
  const uint32_t span = outstanding.span();
  if (outstanding.is_within(una)) {
    peer_window.on_acknowledged(outstanding.age(una, TarnTimerQueue::cur_tick()));
  }
  outstanding.remove_up_to(una);
  if (outstanding.span() == span) return;
  peer_window.on_progress(span - outstanding.span(),
                          span > peer_window.ahead(send_window_.limit()));
}

// After each datagram, when all that it says is known.
void TarnSession::settle_acknowledgements() {
  SessionControl& control = this->control();
  if (!std::exchange(control.is_unsettled, false) && !control.is_owed) return;
  {
    const oxutils::scoped_lock hold(control.send_lock);
    learn(control.outstanding, control.peer_window);
  }
  drain();
}

void TarnSession::learn(const Outstanding& outstanding, PeerWindow& peer_window) {
  const uint32_t kept = outstanding.span() - outstanding.count();
  if (kept == 0 || !peer_window.is_learned()) return;
  const unsigned int now = TarnTimerQueue::cur_tick();
  peer_window.on_gap(kept, outstanding.older_than(peer_window.overdue_age(), now));
}

// Sends what waits while there is room, then tells who waits. One thread at a time, and not from
// inside itself: what an emission brings back on the same stack goes on from here.
void TarnSession::drain() {
  SessionControl& control = this->control();
  {
    const oxutils::scoped_lock hold(control.send_lock);
    if (std::exchange(control.is_draining, true)) return;
  }
  try {
    std::vector<char> packet;
    control.is_owed = false;
    while (cut(control, packet)) {
      emit(Bytes{packet.data(), packet.size()}, Bytes{nullptr, 0}, kWithFeedback, kTested);
    }
  } catch (...) {
    const oxutils::scoped_lock hold(control.send_lock);
    control.is_draining = false;
    control.is_owed = true;
    throw;
  }
  tell_writable();
}

// Moves the next segment from the queue into the window, and a copy to `packet`. False, and nothing
// is drained any more, if there is none or no room.
bool TarnSession::cut(SessionControl& control, std::vector<char>& packet) {
  const oxutils::scoped_lock hold(control.send_lock);
  const SendRoom room = this->room(control);
  if (is_ended() || room.is_queue_empty || room.free_segments() == 0) {
    control.is_draining = false;
    return false;
  }
  const size_t size = control.queue.next_size(room.segment_size);
  SegmentNode segment = send_window_.pool().take(wire::kReliableHeadSize + size);
  packet.resize(wire::kReliableHeadSize + size);
  control.outstanding.reserve(1);
  const unsigned short seq = control.outstanding.next();
  control.outstanding.add(begin_run(control, Run{seq, 1, 1, size}));
  char* const bytes = segment.mapped().data();
  const auto piece = control.queue.take(bytes + wire::kReliableHeadSize, size);
  const auto flag = static_cast<unsigned char>((piece.begins ? wire::kFirst : wire::kMiddle) |
                                               (piece.ends ? wire::kLast : wire::kMiddle));
  wire::put_reliable_head(bytes, seq, flag, size);
  memcpy(packet.data(), bytes, packet.size());
  send_window_.keep(seq, std::move(segment));
  send_window_.set_more(!control.queue.empty());
  return true;
}

// Not from inside itself either: a refused send in the callback waits for the next occasion.
void TarnSession::tell_writable() {
  SessionControl& control = this->control();
  for (;;) {
    const auto callback = control.writable_cb.get();
    if (callback.function == nullptr) return;
    {
      const oxutils::scoped_lock hold(control.send_lock);
      if (is_ended() || control.is_telling || !control.refused.take(room(control))) {
        return;
      }
      control.is_telling = true;
    }
    Telling telling(control);
    callback.function(this, callback.user);
    telling.is_owed = false;
  }
}
