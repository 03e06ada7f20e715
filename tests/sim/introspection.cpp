// Built with -fno-access-control.
#include "tests/sim/introspection.h"

#include <algorithm>

#include "src/session_control.h"
#include "src/tarn_registry.h"
#include "src/tarn_session.h"
#include "src/tarn_thread.h"
#include "src/tarn_timer.h"

namespace tarn_sim {

OX_NO_TSA WindowUse look_into(void* session, const Locks& locks) {
  const auto& looked_at = *static_cast<TarnSession*>(session);
  const SendWindow& send = looked_at.send_window_;
  const RecvWindow& recv = looked_at.recv_window_;
  WindowUse use;
  use.changing = locks.is_held(&send.lock_.handle_);
  use.counted = send.count_;
  for (const auto& bucket : send.buckets) use.kept += bucket.size();
  use.early = recv.recv_buffer_.size();
  use.listed = recv.ack_list.size();
  if (const SessionControl* const control = looked_at.control_.load(std::memory_order_relaxed)) {
    use.withheld = control->gate.withheld_segments_;
    use.queued = control->queue.bytes();
    use.queued_messages = control->queue.messages();
  }
  return use;
}

uint32_t timers_late_ms(uint32_t tick) {
  int32_t late = 0;
  for (const auto& fifo : TarnThread::instance()->timers_->periodic_) {
    if (fifo.second.empty()) continue;
    late = std::max(late, static_cast<int32_t>(tick - fifo.second.front()->expiration()));
  }
  return static_cast<uint32_t>(late);
}

OX_NO_TSA bool is_registered(void* session) { return tarn_sessions().entries_.count(session) != 0; }

}  // namespace tarn_sim
