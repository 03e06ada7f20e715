// PeerWindow: how far a sender may run ahead of the oldest segment that is not acknowledged.
#ifndef TARN_SRC_FLOW_PEER_WINDOW_H_
#define TARN_SRC_FLOW_PEER_WINDOW_H_

#include <stdint.h>

#include <algorithm>

#include "src/flow/send_room.h"

// A peer whose receive window is full refuses what comes early, and says nothing. What it has
// acknowledged beyond a gap, it keeps; so much it has room for. Whether it has more shows only when
// more is sent, which costs nothing on a path without gaps, and otherwise everything that is
// refused, since that has to be sent again.
//
// So the limit, where it is one, grows by everything that is acknowledged, until a gap in which
// much is overdue; from then on it follows what was kept: a little more than a peer keeps that has
// set nothing and, as one with a larger window most likely has a much larger one, several numbers
// more for each one beyond that. A queue on the path that overflows looks like a peer that refuses,
// but for the re-sends, of which the peer keeps more and more.
class PeerWindow {
 public:
  static constexpr uint32_t kLeast = 32;  // of a peer that has set nothing

  // So many numbers from now on; 0: no limit, -1: learned.
  void set(long long limit) {
    const bool was_learned = is_learned_;
    is_learned_ = limit < 0;
    if (is_learned_ && was_learned) return;
    ahead_ = limit > 0 ? static_cast<uint32_t>(limit) : SendRoom::kMostAhead;
    if (is_learned_) learn_anew();
  }

  bool is_learned() const { return is_learned_; }
  // Numbers that may lie beyond the oldest outstanding one. More than the send window, of `window`
  // segments, are never learned.
  uint32_t ahead(uint32_t window) const { return is_learned_ ? std::min(ahead_, window) : ahead_; }

  // A number has been acknowledged so many ms after it was sent first.
  void on_acknowledged(uint32_t age) { quickest_ = std::min(quickest_, age); }
  // In ms, what nobody waits for who acknowledges everything within his cycle.
  uint32_t overdue_age() const { return 2 * quickest_ + kCycle; }

  // Everything up to a number has been acknowledged, which are `released` ones; `was_limited`: no
  // further number could be sent.
  void on_progress(uint32_t released, bool was_limited) {
    if (!is_learned_) return;
    if (!is_refusing_) {
      if (was_limited) ahead_ = std::min(ahead_ + released, SendRoom::kMostAhead);
    } else if (is_refused(kept_in_gap_)) {
      kept_ -= (kept_ - kept_in_gap_) / kForgets;
      follow();
    }
    kept_in_gap_ = overdue_ = 0;
  }

  // Beyond a gap `kept` numbers are acknowledged; `overdue` others are not.
  void on_gap(uint32_t kept, uint32_t overdue) {
    if (!is_learned_) return;
    kept_in_gap_ = std::max(kept_in_gap_, kept);
    kept_ = std::max(kept_, kept);
    overdue_ = overdue;
    is_refusing_ = is_refusing_ || is_refused(kept);
    if (is_refusing_) follow();
  }

 private:
  static constexpr uint32_t kCycle = 60;  // ms; a peer's own is 50 unless set
  static constexpr uint32_t kProbe = 8;   // beyond what a peer keeps that has set nothing
  static constexpr uint32_t kSteep = 4;   // numbers more for each one kept beyond that
  // Of what was kept at most, so much goes with each gap in which less was: it may have been
  // overestimated, when what told that a gap was closed has been lost.
  static constexpr uint32_t kForgets = 8;

  void learn_anew() {
    ahead_ = kLeast;
    kept_ = kept_in_gap_ = overdue_ = 0;
    is_refusing_ = false;
  }
  // More than single losses explain.
  bool is_refused(uint32_t kept) const { return kept > 0 && overdue_ > kept / 2 + 3; }
  void follow() {
    constexpr uint32_t kUnset = kLeast + kProbe;
    ahead_ = kept_ > kLeast
                 ? kUnset + kSteep * (kept_ - kLeast)
                 : std::max(kLeast, kUnset - std::min(kUnset, kSteep * (kLeast - kept_)));
    ahead_ = std::min(ahead_, SendRoom::kMostAhead);
  }

  bool is_learned_ = false;
  uint32_t ahead_ = SendRoom::kMostAhead;
  uint32_t quickest_ = UINT32_MAX / 4;  // ms
  bool is_refusing_ = false;            // has refused, or so it seems
  uint32_t kept_ = 0;                   // at most so far
  uint32_t kept_in_gap_ = 0;            // since the oldest number moved on
  uint32_t overdue_ = 0;
};

#endif  // TARN_SRC_FLOW_PEER_WINDOW_H_
