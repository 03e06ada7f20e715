#include "src/session_control.h"

#include "src/tarn_thread.h"
#include "src/tarn_timer.h"

SessionControl::SessionControl()
    : last_sent(TarnTimerQueue::cur_tick()), last_received(TarnTimerQueue::cur_tick()) {}

SessionControl::~SessionControl() {
  try {
    for (const int timer : {watch.timer, settle_timer.load()}) {
      if (timer != 0) TarnThread::instance()->cancel_timer(timer);
    }
  } catch (...) {  // of a log callback; the timer then finds nobody
  }
}

Silence SessionControl::silence() const {
  // Before the time is: datagrams may come and go on other threads meanwhile.
  const unsigned int sent = last_sent;
  const unsigned int received = last_received;
  const unsigned int now = TarnTimerQueue::cur_tick();
  return Silence{static_cast<uint32_t>(options.own(TARN_OPTION_KEEP_ALIVE_MS)),
                 static_cast<uint32_t>(options.own(TARN_OPTION_PEER_TIMEOUT_MS)),
                 now - sent,
                 now - received,
                 has_received,
                 is_timeout_told && told_of == received};
}

void SessionControl::on_received(size_t size) {
  counters.datagrams_received.add(size);
  last_received = TarnTimerQueue::cur_tick();
  has_received = true;
}
