#include "src/tarn_session.h"

#include <limits.h>
#include <string.h>

#include <atomic>
#include <utility>

#include "src/datagram_buffer.h"
#include "src/session_control.h"
#include "src/tarn_config.h"
#include "src/tarn_log.h"
#include "src/tarn_session_segments.h"
#include "src/tarn_thread.h"
#include "src/tarn_timer.h"
#include "src/wire_format.h"

namespace {

uint64_t next_number() {
  static std::atomic<uint64_t> last{0};
  return ++last;
}

void let_go(oxutils::shared_ptr<TarnSession>) {}

void cycle_if_alive(oxutils::weak_ptr<TarnSession> session) {
  const oxutils::shared_ptr<TarnSession> hold = session.lock();
  if (hold) hold->cycle();
}

}  // namespace

TarnSession::TarnSession()
    : TarnSession(oxutils::Function(this, &TarnSession::resend),
                  oxutils::Function(this, &TarnSession::deliver_reliable)) {}

// From the window on, whose timer is on the worker, only a log callback can make this fail.
TarnSession::TarnSession(oxutils::Function resend, oxutils::Function deliver)
    : mss_(TarnConfig::instance()->mtu),
      number_(next_number()),
      active_timeout_(&TarnConfig::instance()->active_timeout) {
  try {
    const void* const function = resend.get();
    send_window_.set_resend_callback(std::move(resend), this);
    recv_window_.set_output_callback(std::move(deliver));
    TARN_LOG_INFO("tarn session created %p conv: %u resendfunc: %p recv: %p send: %p",
                  static_cast<void*>(this), get_conv(), function, static_cast<void*>(&recv_window_),
                  static_cast<void*>(&send_window_));
  } catch (...) {
    TarnThread::instance()->wait(oxutils::Function(this, &TarnSession::retire));
    throw;
  }
}

// The only call that holds back what a log callback throws: there is nothing to go back to.
TarnSession::~TarnSession() {
  try {
    TARN_LOG_DEBUG("tarn %p conv: %u destroyed", static_cast<void*>(this), get_conv());
  } catch (...) {
  }
  delete control_.load(std::memory_order_relaxed);
}

oxutils::shared_ptr<SendWindow::Owner> TarnSession::hold() { return weak_this_.lock(); }

void TarnSession::start() {
  TARN_LOG_INFO("tarn session start %p", static_cast<void*>(this));
  active();
  const auto period = static_cast<int>(TarnConfig::instance()->rtx_timeout.load());
  // A one-shot that is due together with others runs even if a callback of theirs has cancelled it
  // and destroyed the session.
  cycle_timer_ = TarnThread::instance()->run_every(
      period, period > 0 ? oxutils::Function(this, &TarnSession::cycle)
                         : oxutils::Function(&cycle_if_alive, weak_this_));
  // Always with the lock: either stop() finds the timer set, or its flag is seen here.
  if ((course_locked() & kStopped) == 0) return;
  // Destroyed by somebody who saw the handle in the log, when there was no timer to cancel yet.
  cancel_cycle();
  keep_until_worker_has_run();
}

// What was handed to the worker so far may refer to this session.
void TarnSession::keep_until_worker_has_run() {
  TarnThread::instance()->run(oxutils::Function(&let_go, weak_this_.lock()));
}

void TarnSession::stop() {
  mark_stopped();
  TARN_LOG_INFO("tarn %p stop", static_cast<void*>(this));
  cancel_cycle();
  send_window_.stop();
  if (!got_bye_) bye();
}

void TarnSession::stop(unsigned int delay_ms) {
  TARN_LOG_INFO("tarn %p stop with delay %lu", static_cast<void*>(this),
                static_cast<unsigned long>(delay_ms));
  // Not stopped yet: input, feedback and re-sends go on, which is what empties the window.
  send_window_.stop(delay_ms);
  mark_stopped();
  cancel_cycle();
  if (!got_bye_) bye();
}

void TarnSession::retire() {
  mark_stopped();
  cancel_cycle();
  send_window_.stop();
}

void TarnSession::mark_stopped() { add_to_course(kStopped); }

void TarnSession::add_to_course(Course course) {
  const oxutils::scoped_lock hold(state_mutex_);
  course_ = static_cast<unsigned char>(course_ | course);
}

void TarnSession::cancel_cycle() {
  if (cycle_timer_ != 0) TarnThread::instance()->cancel_timer(cycle_timer_);
}

unsigned char TarnSession::course() const {
  return TarnConfig::instance()->thread_safe ? course_locked() : course_.load();
}

unsigned char TarnSession::course_locked() const {
  const oxutils::scoped_lock hold(state_mutex_);
  return course_;
}

void TarnSession::active() {
  const unsigned int now = TarnTimerQueue::cur_tick();
  const oxutils::scoped_lock hold(state_mutex_);
  last_active_ = now;
}

// Whether a cycle would do nothing and tell nobody.
bool TarnSession::is_cycle_idle() {
  if (TarnLog::instance()->enabled(TarnLog::LOG_ERROR) || recv_window_.has_feedback()) return false;
  unsigned int last = 0;
  unsigned int now = 0;
  return silence(last, now) <= *active_timeout_.load();
}

void TarnSession::cycle() {
  if (is_cycle_idle()) return;
  // A callback may destroy the session, here and now.
  const oxutils::shared_ptr<TarnSession> hold = weak_this_.lock();
  cycle_feedback();
  cycle_check_active();
}

void TarnSession::error(TarnError code) {
  if (is_stopped()) return;
  const auto callback = error_cb_.get();
  if (callback.function != nullptr) callback.function(code, callback.user);
}

void TarnSession::set_output_callback(DataCallback callback, void* user) {
  output_cb_.set(callback, user);
}

void TarnSession::set_recv_reliable_callback(DataCallback callback, void* user) {
  recv_reliable_cb_.set(callback, user);
}

void TarnSession::set_recv_unreliable_callback(DataCallback callback, void* user) {
  recv_unreliable_cb_.set(callback, user);
}

void TarnSession::set_error_callback(ErrorCallback callback, void* user) {
  error_cb_.set(callback, user);
}

void TarnSession::input(char* datagram, size_t size) {
  if (!active_unless<kNotPlain>()) {
    input_controlled(datagram, size);
    return;
  }
  DatagramReader reader(datagram, size);
  char magic = 0;
  unsigned char version = 0;
  if (!reader.read_head(magic, version)) return;
  recv_window_.resume();
  read_segments<&TarnSession::dispatch>(reader);
}

void TarnSession::emit(Bytes head, Bytes body, FeedbackRides feedback_rides, StoppedTest tested) {
  const auto payload = static_cast<int64_t>(head.size + body.size);
  Feedback feedback;
  // Signed: with a tiny segment size nothing rides along. What is gathered here is lost if the
  // datagram then cannot leave.
  const int64_t mss = mss_;
  if (feedback_rides == kWithFeedback && payload < mss - 2) {
    gather_feedback(static_cast<unsigned long>(mss - payload), feedback);
  }
  const auto callback = output_cb_.get();
  if (callback.function == nullptr) {
    TARN_LOG_WARN("tarn %p has no output callback", static_cast<void*>(this));
    return;
  }
  const unsigned char course = tested == kTested ? course_.load() : this->course();
  const unsigned int conv = conv_;
  const size_t size = wire::kHeaderSize + (conv != 0 ? wire::kConvSegSize : 0) +
                      feedback.una_size() + feedback.ack_size() + head.size + body.size;
  if ((course & kNotPlain) != 0 && !begin_datagram(course, size)) return;
  if (size > INT_MAX) {
    TARN_LOG_ERROR("tarn %p output size %lu too large", static_cast<void*>(this),
                   static_cast<unsigned long>(size));
    return;
  }
  DatagramBuffer datagram(size);
  char* at = datagram.data();
  wire::put_header(at);
  at += wire::kHeaderSize;
  if (conv != 0) {
    wire::put_conv_segment(at, conv);
    at += wire::kConvSegSize;
  }
  at = feedback.put_acks(feedback.put_una(at));
  if (head.size > 0) memcpy(at, head.data, head.size);
  if (body.size > 0) memcpy(at + head.size, body.data, body.size);

  TARN_LOG_VERBOSE("tarn %p output size %lu", static_cast<void*>(this),
                   static_cast<unsigned long>(size));
  callback.function(datagram.data(), static_cast<int>(size), callback.user);
}
