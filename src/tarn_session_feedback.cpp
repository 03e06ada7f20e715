// TarnSession: acknowledgements, the check for silence, and bye.
#include <algorithm>

#include "src/datagram_buffer.h"
#include "src/tarn_config.h"
#include "src/tarn_log.h"
#include "src/tarn_session.h"
#include "src/tarn_timer.h"
#include "src/wire_format.h"

namespace {

// Less than this, and nothing is gathered.
constexpr unsigned long kMinFeedbackBudget = 6;

}  // namespace

void TarnSession::gather_feedback(unsigned long budget, Feedback& feedback) {
  if (budget < kMinFeedbackBudget) return;
  recv_window_.take_feedback(std::max<unsigned long>(budget, least_feedback_), feedback);
  if (feedback.has_una) {
    TARN_LOG_DEBUG("tarn %p feedback una %u", static_cast<void*>(this), feedback.una);
  }
  for (const unsigned short seq : feedback.acks) {
    TARN_LOG_DEBUG("tarn %p feedback ack %u", static_cast<void*>(this), seq);
  }
}

void TarnSession::cycle_feedback() {
  if ((course_locked() & kStopped) != 0) return;
  Feedback feedback;
  gather_feedback(static_cast<unsigned long>(mss_.load()), feedback);
  if (feedback.empty()) return;
  // Alone, unlike beside data, the ack list comes first.
  const size_t size = feedback.ack_size() + feedback.una_size();
  DatagramBuffer payload(size);
  feedback.put_una(feedback.put_acks(payload.data()));
  emit(Bytes{payload.data(), size}, Bytes{nullptr, 0}, kWithoutFeedback);
}

unsigned int TarnSession::silence(unsigned int& last, unsigned int& now) const {
  {
    const oxutils::scoped_lock hold(state_mutex_);
    last = last_active_;
  }
  now = TarnTimerQueue::cur_tick();
  return now - last;  // unsigned: the wrap of the tick does no harm
}

void TarnSession::cycle_check_active() {
  unsigned int last = 0;
  unsigned int now = 0;
  const unsigned int diff = silence(last, now);
  if (diff <= *active_timeout_.load()) return;
  TARN_LOG_WARN("%p active check FAIL now %lu,last %lu diff %lu", static_cast<void*>(this),
                static_cast<unsigned long>(now), static_cast<unsigned long>(last),
                static_cast<unsigned long>(diff));
  error(TARN_ERROR_INACTIVE);
}

bool TarnSession::got_ack(Bytes body) {
  if (body.size == 0 || body.size % wire::kSeqSize != 0) {
    TARN_LOG_ERROR("%p error ack size %lu", static_cast<void*>(this),
                   static_cast<unsigned long>(body.size));
    return false;
  }
  for (size_t at = 0; at < body.size; at += wire::kSeqSize) {
    const unsigned short seq = wire::get_uint16(body.data + at);
    send_window_.ack(seq);
    TARN_LOG_DEBUG("tarn %p got ack %u,send window size %lu", static_cast<void*>(this), seq,
                   static_cast<unsigned long>(send_window_.count()));
  }
  return true;
}

bool TarnSession::got_una(Bytes body) {
  if (body.size != wire::kSeqSize) {
    TARN_LOG_ERROR("error una size %lu", static_cast<unsigned long>(body.size));
    return false;
  }
  const unsigned short una = wire::get_uint16(body.data);
  send_window_.una(una);
  TARN_LOG_DEBUG("tarn %p got una %u send window size %lu", static_cast<void*>(this), una,
                 static_cast<unsigned long>(send_window_.count()));
  return true;
}

void TarnSession::got_bye() {
  TARN_LOG_INFO("tarn %p got bye", static_cast<void*>(this));
  got_bye_ = true;
  error(TARN_ERROR_BYE);
}

void TarnSession::got_heartbeat() {
  TARN_LOG_INFO("tarn %p got heartbeat", static_cast<void*>(this));
}

// Both stops mark the session stopped before they come here, so the segment never leaves: peers
// notice the end by their own check for silence.
void TarnSession::bye() {
  TARN_LOG_INFO("tarn %p send bye", static_cast<void*>(this));
  if (is_stopped()) return;
  char head[wire::kSegHeadSize];
  wire::put_seg_head(head, wire::kBye, wire::kNoFlag, 0);
  emit(Bytes{head, sizeof head}, Bytes{nullptr, 0}, kWithFeedback);
}
