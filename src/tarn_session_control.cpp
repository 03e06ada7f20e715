// TarnSession: options, statistics, and what they need of its life.
#include <errno.h>
#include <limits.h>
#include <string.h>

#include <algorithm>
#include <memory>

#include "src/session_control.h"
#include "src/tarn_config.h"
#include "src/tarn_session.h"
#include "src/tarn_thread.h"
#include "src/tarn_timer.h"

namespace {

struct Setting {
  TarnOption option;
  long long value;
};

constexpr long long kMiB = 1024 * 1024;

// Bytes of acknowledgements that may ride in any datagram in which some may: with fewer, an una
// would leave none for the list, which is then as long as can be. A datagram has room for it where
// its conversation id and a reliable segment's number are not counted.
constexpr unsigned char kLeastFeedback = 8;

void cancel(int timer) {
  if (timer != 0) TarnThread::instance()->cancel_timer(timer);
}

// By profile, but for the first one.
constexpr Setting kProfiles[][2] = {
    {{TARN_OPTION_SEND_QUEUE, kMiB}, {TARN_OPTION_SEND_WINDOW, 256}},
    {{TARN_OPTION_SEND_QUEUE, kMiB}, {TARN_OPTION_SEND_WINDOW, 256}},
    {{TARN_OPTION_SEND_QUEUE, 8 * kMiB}, {TARN_OPTION_SEND_WINDOW, 1024}},
};

}  // namespace

SessionControl& TarnSession::make_control() {
  auto made = std::make_unique<SessionControl>();
  SessionControl& control = *made;
  {
    const oxutils::scoped_lock hold_sends(control.send_lock);
    const oxutils::scoped_lock hold(state_mutex_);
    if (SessionControl* const other = control_.load(std::memory_order_relaxed)) return *other;
    control.outstanding =
        Outstanding(send_seq_, send_window_.numbers(), TarnTimerQueue::cur_tick());
    control.mtu = mss_;
    control.last_told = recv_window_.last_in_order();
    control.has_received = recv_window_.has_received();
    control_.store(made.release(), std::memory_order_release);
    course_ = static_cast<unsigned char>(course_ | kControlled);
  }
  if (send_window_.count() > 0) settle_later();
  return control;
}

int TarnSession::set_option(TarnOption option, long long value) {
  if (!SessionOptions::accepts(option, value)) return -EINVAL;
  if (is_ended()) return -ESHUTDOWN;
  SessionControl& control = this->control();
  if (option == TARN_OPTION_MTU) {
    const int result = set_mtu(static_cast<unsigned int>(value));
    if (result != 0) return result;
  }
  {
    // Whoever looks for room sees the old value or the new one.
    const oxutils::scoped_lock hold(control.send_lock);
    control.options.set(option, value);
    if (option == TARN_OPTION_PEER_WINDOW) control.peer_window.set(value);
    apply_limits(control);
  }
  if (option == TARN_OPTION_KEEP_ALIVE_MS || option == TARN_OPTION_PEER_TIMEOUT_MS) {
    watch_from_now(control, option);
  }
  drain();
  return 0;
}

int TarnSession::get_option(TarnOption option, long long* value) {
  if (value == nullptr || !SessionOptions::exists(option)) return -EINVAL;
  if (is_ended()) return -ESHUTDOWN;
  *value = control().options.get(option);
  return 0;
}

int TarnSession::set_mtu(unsigned int mtu) {
  // Nobody is cutting a message.
  const oxutils::scoped_lock hold_sends(control().send_lock);
  const oxutils::scoped_lock hold(state_mutex_);
  if ((course_ & kUnsent) == 0) return -EBUSY;
  mss_ = mtu;
  return 0;
}

void TarnSession::apply_limits(const SessionControl& control) {
  send_window_.set_limit(control.options.send_window());
  recv_window_.set_limit(control.options.recv_window());
  active_timeout_ = control.options.active_timeout();
  least_feedback_ = control.options.any() ? kLeastFeedback : 0;
}

int TarnSession::set_profile(TarnProfile profile) {
  if (profile < TARN_PROFILE_PLAIN || profile > TARN_PROFILE_BULK) return -EINVAL;
  if (is_ended()) return -ESHUTDOWN;
  SessionControl& control = this->control();
  if (profile == TARN_PROFILE_PLAIN) return clear_options(control);
  const Setting* const own = kProfiles[profile - 1];
  const Setting settings[] = {
      own[0],
      own[1],
      {TARN_OPTION_RECV_WINDOW, own[1].value},
      {TARN_OPTION_PEER_WINDOW, -1},
      {TARN_OPTION_MAX_MESSAGE, 64 * kMiB},
      {TARN_OPTION_PEER_TIMEOUT_MS,
       std::min<long long>(control.options.get(TARN_OPTION_ACTIVE_TIMEOUT_MS), INT_MAX)}};
  for (const Setting& each : settings) {
    const int result = set_option(each.option, each.value);
    if (result != 0) return result;
  }
  return 0;
}

int TarnSession::clear_options(SessionControl& control) {
  if (!control.options.any()) return 0;
  const int result = set_mtu(control.mtu);
  if (result != 0) return result;
  {
    const oxutils::scoped_lock hold(control.send_lock);
    control.options.clear();
    control.peer_window.set(0);
    apply_limits(control);
  }
  return 0;
}

int TarnSession::get_stats(TarnStats* stats, size_t size) {
  if (stats == nullptr || size == 0) return -EINVAL;
  if (is_ended()) return -ESHUTDOWN;
  SessionControl& control = this->control();
  TarnStats all{};
  control.counters.report(all);
  all.buffered_segments = static_cast<uint32_t>(recv_window_.buffered() + control.gate.withheld());
  // Before the time is: a datagram may come on another thread meanwhile.
  const unsigned int last_received = control.last_received;
  {
    const oxutils::scoped_lock hold(control.send_lock);
    const unsigned int now = TarnTimerQueue::cur_tick();
    all.since_received_ms = now - last_received;
    all.outstanding_segments = control.outstanding.count();
    all.oldest_outstanding_ms = control.outstanding.oldest_ms(now);
    all.queued_messages = static_cast<uint32_t>(control.queue.messages());
    all.queued_bytes = static_cast<uint32_t>(std::min<size_t>(control.queue.bytes(), UINT32_MAX));
    all.rtt_us = control.round_trip.smooth();
    all.rtt_min_us = control.round_trip.least();
    all.outstanding_bytes = static_cast<uint32_t>(send_window_.payload_bytes());
  }
  memset(stats, 0, size);
  memcpy(stats, &all, std::min(size, sizeof all));
  return 0;
}

// What keeps calls off the short way.

bool TarnSession::begin_unreliable(unsigned char course) {
  if ((course & kStopped) != 0) return false;
  if ((course & kUnsent) != 0) mark_sent();
  if ((course & kControlled) != 0) control().counters.unreliable_sent.add();
  return true;
}

bool TarnSession::begin_datagram(unsigned char course, size_t size) {
  if ((course & kStopped) != 0) return false;
  if (size <= INT_MAX) control().on_sending(size);
  return true;
}

void TarnSession::mark_sent() {
  const oxutils::scoped_lock hold(state_mutex_);
  course_ = static_cast<unsigned char>(course_ & ~kUnsent);
}

// Watching for silence.

void TarnSession::watch_from_now(SessionControl& control, TarnOption option) {
  const unsigned int now = TarnTimerQueue::cur_tick();
  if (option == TARN_OPTION_KEEP_ALIVE_MS) control.last_sent = now;
  if (option == TARN_OPTION_PEER_TIMEOUT_MS && !control.has_received) control.last_received = now;
  arm_watch(control, control.silence().first_look());
}

// Timers log, so they are set and cancelled without the lock; of several threads that arm the watch
// the last one's timer stays.
void TarnSession::arm_watch(SessionControl& control, uint32_t delay) {
  SessionControl::Watch mine;
  SessionControl::Watch old;
  {
    const oxutils::scoped_lock hold(control.watch_lock);
    old = control.watch;
    mine.number = old.number + 1;
    control.watch = mine;
  }
  cancel(old.timer);
  if (delay == 0 || is_ended()) return;
  // A one-shot runs strictly after its delay.
  mine.timer = TarnThread::instance()->run_after(
      static_cast<int>(delay) - 1,
      oxutils::Function(&TarnSession::watch_if_alive, weak_this_, mine.number));
  {
    const oxutils::scoped_lock hold(control.watch_lock);
    if (control.watch.number == mine.number) {
      control.watch = mine;
      return;
    }
  }
  cancel(mine.timer);
}

void TarnSession::watch_if_alive(oxutils::weak_ptr<TarnSession> session, unsigned int number) {
  const oxutils::shared_ptr<TarnSession> hold = session.lock();
  if (hold) hold->watch(number);
}

// Armed again first: a callback may throw.
void TarnSession::watch(unsigned int number) {
  SessionControl& control = this->control();
  const unsigned int received = control.last_received;
  const Silence silence = control.silence();
  {
    const oxutils::scoped_lock hold(control.watch_lock);
    if (number != control.watch.number) return;
    control.watch.timer = 0;  // this one
  }
  arm_watch(control, silence.next_look());
  if (is_ended()) return;
  if (silence.is_ours_over()) {
    control.last_sent = TarnTimerQueue::cur_tick();
    emit(Bytes{nullptr, 0}, Bytes{nullptr, 0}, kWithoutFeedback);
  }
  if (silence.is_peers_over()) {
    control.told_of = received;
    control.is_timeout_told = true;
    error(TARN_ERROR_INACTIVE);
  }
}

// What was under way when the control was made, on the way that knows nothing of it, let packets go
// behind the back of what counts them.

void TarnSession::settle_if_alive(oxutils::weak_ptr<TarnSession> session) {
  const oxutils::shared_ptr<TarnSession> hold = session.lock();
  if (hold) hold->settle();
}

// Until somebody feeds the session, or nothing is outstanding.
void TarnSession::settle_later() {
  constexpr int kDelayMs = 30;
  control().settle_timer = TarnThread::instance()->run_after(
      kDelayMs, oxutils::Function(&TarnSession::settle_if_alive, weak_this_));
}

void TarnSession::settle() {
  SessionControl& control = this->control();
  if (settle_counts() && !control.has_fed && !is_ended()) settle_later();
  drain();
}

// Whether anything is outstanding.
bool TarnSession::settle_counts() {
  SessionControl& control = this->control();
  const oxutils::scoped_lock hold(control.send_lock);
  if (control.outstanding.count() > send_window_.count()) {
    control.outstanding.keep_only(send_window_.numbers());
    control.is_owed = true;
  }
  return control.outstanding.count() > 0;
}
