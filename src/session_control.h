// SessionControl: what a session keeps for the calls of tarn/control.h.
#ifndef TARN_SRC_SESSION_CONTROL_H_
#define TARN_SRC_SESSION_CONTROL_H_

#include "oxutils/mutex.h"
#include "oxutils/relaxed.h"
#include "src/callback_slot.h"
#include "src/flow/message_queue.h"
#include "src/flow/outstanding.h"
#include "src/flow/peer_window.h"
#include "src/flow/refused_sends.h"
#include "src/flow/round_trip.h"
#include "src/flow/send_room.h"
#include "src/flow/silence.h"
#include "src/receive_gate.h"
#include "src/session_counters.h"
#include "src/session_options.h"
#include "src/tarn_timer.h"
#include "tarn/control.h"

// Made with the first of those calls, and there as long as its session, which does the work. Locks:
// send_lock comes before all others of the session and is never held while anything calls out.
struct SessionControl {
  SessionControl();
  // Cancels the timer.
  ~SessionControl();
  SessionControl(const SessionControl&) = delete;
  SessionControl& operator=(const SessionControl&) = delete;

  unsigned int mtu = 0;  // as it was before any option
  SessionOptions options;
  SessionCounters counters;

  // Sending.
  oxutils::mutex send_lock;
  MessageQueue queue OX_GUARDED_BY(send_lock);
  Outstanding outstanding OX_GUARDED_BY(send_lock);
  RefusedSends refused OX_GUARDED_BY(send_lock);
  PeerWindow peer_window OX_GUARDED_BY(send_lock);
  RoundTrip round_trip OX_GUARDED_BY(send_lock);
  bool is_draining OX_GUARDED_BY(send_lock) = false;
  // An exception has left something in the queue, or somebody untold, that has room.
  oxutils::relaxed<bool> is_owed{false};
  bool is_telling OX_GUARDED_BY(send_lock) = false;  // the writable callback is running
  CallbackSlot<TarnWritableCallback> writable_cb;

  // Receiving.
  ReceiveGate gate;
  // What is in order may not all have been delivered, since an exception has passed through, or the
  // turn was not to be had.
  oxutils::relaxed<bool> is_held_up{true};
  bool is_unsettled = false;  // acknowledgements have come in this datagram; feeding thread only
  // The last number of the last message that came out of the window; with the turn to deliver.
  oxutils::relaxed<unsigned short> last_told{static_cast<unsigned short>(-1)};
  // The session has been fed since this was made: before, whoever feeds it may still be on the way
  // that knows nothing of this.
  oxutils::relaxed<bool> has_fed{false};
  oxutils::relaxed<int> settle_timer{0};               // 0: none
  oxutils::relaxed<bool> is_message_too_large{false};  // nothing reliable is taken any more

  // Ticks.
  oxutils::relaxed<unsigned int> last_sent{0};
  oxutils::relaxed<unsigned int> last_received{0};
  oxutils::relaxed<bool> has_received{false};
  oxutils::relaxed<bool> is_timeout_told{false};  // for the silence since
  oxutils::relaxed<unsigned int> told_of{0};

  // The one-shot that looks for silence: armed anew, it makes the ones before it void.
  struct Watch {
    unsigned int number = 0;
    int timer = 0;  // 0: none
  };
  oxutils::mutex watch_lock;
  Watch watch OX_GUARDED_BY(watch_lock);

  // A datagram of `size` bytes has come.
  void on_received(size_t size);
  // One goes out.
  void on_sending(size_t size) {
    counters.datagrams_sent.add(size);
    if (options.own(TARN_OPTION_KEEP_ALIVE_MS) != 0) last_sent = TarnTimerQueue::cur_tick();
  }
  Silence silence() const;
};

#endif  // TARN_SRC_SESSION_CONTROL_H_
