// ReceiveGate: whether reliable messages reach the application, and who brings them.
#ifndef TARN_SRC_RECEIVE_GATE_H_
#define TARN_SRC_RECEIVE_GATE_H_

#include <pthread.h>
#include <stddef.h>

#include <deque>
#include <utility>

#include "oxutils/mutex.h"
#include "src/data_view.h"

// At most one thread at a time delivers: whoever feeds the session, or whoever resumes it. A
// message that comes out of the receive window beside that, or while the session is paused, is
// withheld for the one that delivers next. Any thread; lock_ is never held while anybody calls out.
class ReceiveGate {
 public:
  ReceiveGate() = default;
  ReceiveGate(const ReceiveGate&) = delete;
  ReceiveGate& operator=(const ReceiveGate&) = delete;

  // The turn to deliver, until end() or the end of the scope. False if it is paused, or somebody
  // else's, who is asked to look again.
  class Turn {
   public:
    explicit Turn(ReceiveGate& gate) : gate_(gate), is_taken_(gate.enter()) {}
    ~Turn() { end(); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    explicit operator bool() const { return is_taken_; }
    // Whether there may be something to deliver that came beside the turn.
    bool end() { return std::exchange(is_taken_, false) && gate_.leave(); }

   private:
    ReceiveGate& gate_;
    bool is_taken_;
  };

  void pause(bool on) OX_EXCLUDES(lock_);
  bool is_paused() const OX_EXCLUDES(lock_);
  // True: the message, which came in so many segments, is kept, with bytes of its own, since it may
  // not be delivered now, or not by the calling thread.
  bool withhold(DataView& message, size_t segments) OX_EXCLUDES(lock_);
  // The oldest one withheld, while it is not paused.
  bool take_withheld(DataView& message) OX_EXCLUDES(lock_);
  // Segments of these.
  size_t withheld() const OX_EXCLUDES(lock_);

 private:
  struct Withheld {
    DataView message;
    size_t segments;
  };

  bool enter() OX_EXCLUDES(lock_);
  bool leave() OX_EXCLUDES(lock_);

  mutable oxutils::mutex lock_;
  bool is_paused_ OX_GUARDED_BY(lock_) = false;
  bool is_taken_ OX_GUARDED_BY(lock_) = false;
  pthread_t holder_ OX_GUARDED_BY(lock_){};      // of the turn, while it is taken
  bool is_wanted_ OX_GUARDED_BY(lock_) = false;  // somebody has been turned away
  std::deque<Withheld> withheld_ OX_GUARDED_BY(lock_);
  size_t withheld_segments_ OX_GUARDED_BY(lock_) = 0;
};

#endif  // TARN_SRC_RECEIVE_GATE_H_
