#include "tests/model/model_session.h"

#include <algorithm>

#include "tests/model/model_feedback.h"

namespace tarn_model {
namespace {

constexpr int32_t kResendPeriod = 30;
constexpr size_t kLargestFragment = 65533;

}  // namespace

ModelSession::ModelSession(uint64_t now) : now_(now) { create(); }

void ModelSession::create() {
  conv_ = 0;
  next_seq_ = 0;
  callbacks_ = kHasAll;
  stopped_ = got_bye_ = false;
  timers_.clear();
  mss_ = settings_.mtu;
  send_ = std::make_unique<ModelSendWindow>(trace);
  recv_ = std::make_unique<ModelRecvWindow>(trace);
  add_timer(kResendPeriod, &ModelSession::resend_pass);
  send_->set_resend_callback(
      [this](uint16_t seq, const std::string& segment) { resend(seq, segment); });
  recv_->set_output_callback([this](const std::string& message) { deliver(message); });
  log(trace, 3, "tarn session created %s conv: %u resendfunc: %s recv: %s send: %s", kSession, 0,
      kFunction, kWindow, kWindow);
  log(trace, 3, "tarn %s created", kSession);
  log(trace, 3, "tarn session start %s", kSession);
  active();
  add_timer(static_cast<int32_t>(settings_.rtx_timeout), &ModelSession::cycle);
}

void ModelSession::destroy() {
  log(trace, 3, "tarn %s destroy, wait time: %d", kSession, 0);
  log(trace, 3, "tarn %s stop with delay %lu", kSession, 0ul);
  log(trace, 3, "tarn stopped, legacy packet num %u tick end %u wait ms %u", send_->count(),
      static_cast<uint32_t>(now_), 0);
  stopped_ = true;
  timers_.clear();
  if (!got_bye_) log(trace, 3, "tarn %s send bye", kSession);
  log(trace, 1, "kcp not surported");
  log(trace, 3, "tarn %s del", kSession);
  log(trace, 4, "tarn %s conv: %u destroyed", kSession, conv_);
}

void ModelSession::restart(uint32_t mtu, uint32_t cycle_ms) {
  destroy();
  settings_.mtu = mtu;
  settings_.rtx_timeout = cycle_ms;
  create();
}

// Says a bye that is never sent: the session is stopped by then.
void ModelSession::stop() {
  stopped_ = true;
  log(trace, 3, "tarn %s stop", kSession);
  timers_.clear();
  if (!got_bye_) log(trace, 3, "tarn %s send bye", kSession);
}

void ModelSession::set(SessionOp::Kind setting, uint32_t value) {
  switch (setting) {
    case SessionOp::kSendLimit:
      settings_.send_window_size = value;
      break;
    case SessionOp::kRecvLimit:
      settings_.recv_window_size = value;
      break;
    case SessionOp::kActiveTimeout:
      settings_.active_timeout = value;
      break;
    case SessionOp::kMtu:
      settings_.mtu = value;
      break;
    default:
      break;
  }
}

void ModelSession::set_conv(uint32_t conv) {
  log(trace, 5, "tarn %s set conv %ld", kSession, static_cast<long>(conv));
  conv_ = conv;
}

void ModelSession::add_timer(int32_t interval, void (ModelSession::*run)()) {
  timers_.push_back({interval, now_ + static_cast<uint64_t>(std::max(interval, 1)), run});
  // Due timers run in order of their intervals, once-only ones first.
  std::stable_sort(timers_.begin(), timers_.end(),
                   [](const Timer& a, const Timer& b) { return a.interval < b.interval; });
}

void ModelSession::advance(uint32_t ms) {
  now_ += ms;
  // By index: a callback may stop the session, which leaves no timers.
  for (size_t i = 0; i < timers_.size(); ++i) {
    if (timers_[i].interval <= 0) {
      // Strictly less: one that is due exactly now waits for the next pass.
      if (timers_[i].due >= now_) continue;
      timers_[i].due = UINT64_MAX;
      (this->*timers_[i].run)();
      continue;
    }
    // Skipped periods are caught up one by one.
    while (i < timers_.size() && timers_[i].due <= now_) {
      timers_[i].due += static_cast<uint64_t>(timers_[i].interval);
      (this->*timers_[i].run)();
    }
  }
}

void ModelSession::cycle() {
  if (!stopped_) {
    const ModelFeedback feedback = take_feedback(*recv_, static_cast<uint64_t>(mss_), &trace);
    const std::string segments = feedback.acks + feedback.una;
    if (!segments.empty()) output(segments, false);
  }
  check_active();
}

void ModelSession::check_active() {
  const uint64_t silence = now_ - last_active_;
  if (silence <= settings_.active_timeout) return;
  log(trace, 2, "%s active check FAIL now %lu,last %lu diff %lu", kSession,
      static_cast<unsigned long>(now_), static_cast<unsigned long>(last_active_),
      static_cast<unsigned long>(silence));
  error(3);
}

void ModelSession::error(int code) {
  if (!stopped_ && has(kHasError)) happened(What::kError, code, "");
}

void ModelSession::send_reliable(const std::string& message) {
  log(trace, 5, "tarn %s send reliable len %d", kSession, static_cast<int>(message.size()));
  if (stopped_) return;
  if (mss_ == 0 && !message.empty()) {
    log(trace, 1, "tarn %s cannot send reliable len %lu with mtu 0", kSession,
        static_cast<unsigned long>(message.size()));
    return;
  }
  const size_t most = std::min(static_cast<size_t>(mss_), kLargestFragment);
  const size_t fragments = message.size() <= most ? 1 : (message.size() + most - 1) / most;
  // One unbroken run of numbers, whatever the callbacks send meanwhile.
  const uint16_t first = next_seq_;
  next_seq_ = static_cast<uint16_t>(next_seq_ + fragments);
  for (size_t i = 0; i < fragments && !stopped_; ++i) {
    const unsigned flag = (i == 0 ? 2u : 0u) + (i + 1 == fragments ? 1u : 0u);
    send_segment(static_cast<uint16_t>(first + i), message.substr(i * most, most), flag);
  }
}

void ModelSession::send_segment(uint16_t seq, const std::string& payload, unsigned flag) {
  const std::string segment = segment_bytes(0, flag, uint16_bytes(seq) + payload);
  output(segment, true);
  log(trace, 5, "tarn %s send reliable seq %u len %lu", kSession, seq,
      static_cast<unsigned long>(payload.size()));
  if (!send_->write(seq, segment, settings_.send_window_size)) {
    log(trace, 1, "tarn %s send window overflow size %lu", kSession, unacknowledged());
    if (has(kHasError)) happened(What::kError, 0, "");
  }
  active();
}

void ModelSession::resend(uint16_t seq, const std::string& segment) {
  if (stopped_) return;
  log(trace, 3, "tarn %s resend seq %u", kSession, seq);
  output(segment, true);
}

void ModelSession::send_unreliable(const std::string& message) {
  log(trace, 5, "tarn %s send unreliable len %d", kSession, static_cast<int>(message.size()));
  if (stopped_) return;
  output(segment_bytes(1, 3, message), true);
  active();
}

std::string ModelSession::send_nocp(const std::string& message) {
  log(trace, 5, "tarn %s send unreliable len %d", kSession, static_cast<int>(message.size()));
  const std::string untouched(12, '.');
  if (stopped_) return untouched + message;
  const std::string datagram = std::string("$\0", 2) + segment_bytes(6, 3, uint32_bytes(conv_)) +
                               segment_bytes(1, 3, message);
  emit(datagram);
  return datagram;
}

void ModelSession::output(const std::string& payload, bool with_feedback) {
  std::string datagram("$\0", 2);
  ModelFeedback feedback;
  const auto size = static_cast<int64_t>(payload.size());
  if (with_feedback && size < mss_ - 2) {
    feedback = take_feedback(*recv_, static_cast<uint64_t>(mss_ - size), &trace);
  }
  if (conv_ != 0) datagram += segment_bytes(6, 3, uint32_bytes(conv_));
  datagram += feedback.una + feedback.acks + payload;
  if (stopped_ && has(kHasOutput)) return;
  emit(datagram);
}

void ModelSession::emit(const std::string& datagram) {
  if (!has(kHasOutput)) {
    log(trace, 2, "tarn %s has no output callback", kSession);
    return;
  }
  log(trace, 5, "tarn %s output size %lu", kSession, static_cast<unsigned long>(datagram.size()));
  happened(What::kDatagram, 0, datagram);
}

}  // namespace tarn_model
