// Stream: what one end of a conversation sends reliably, and what the other end makes of it.
#ifndef TARN_TESTS_SIM_STREAM_H_
#define TARN_TESTS_SIM_STREAM_H_

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tests/sim/datagram.h"
#include "tests/sim/sent_messages.h"
#include "tests/sim/world.h"

namespace tarn_sim {

// A ledger that knows nothing of the library but its datagrams and its callbacks, and breaks the
// run off when they contradict each other: segments that are not the next piece of a message being
// sent, a repetition that differs, feedback about something that has not come, a message that is
// not the next one, byte for byte.
class Stream {
 public:
  struct Rules {
    uint64_t largest_payload = 0;  // of a segment
    bool exact_timing = false;     // nothing disturbs the re-send rotation
    bool trusted = true;           // nothing on the way changes what a datagram says
    // The sender keeps messages for later and looks for room: what it sends may leave on any task.
    bool controlled = false;
    uint64_t most_sent = 0;   // then, segments that may be outstanding,
    uint64_t most_ahead = 0;  // and numbers beyond the oldest of them
    bool may_overflow = false;
  };

  Stream(World& world, std::string name, const Rules& rules)
      : world_(world), name_(std::move(name)), rules_(rules) {}

  // --- The sending end ---

  // The running task begins and ends the sending of a message. Within one message another one may
  // be sent, from inside a callback. `cut_short` allows the end before the last piece is out;
  // `is_refusable` one that is sent whole or not at all.
  void open_message(std::string bytes, bool is_refusable = false);
  // Whether all of it found room.
  bool close_message(bool cut_short);
  // The same for a message that may be refused. Requires: controlled.
  void close_message(SentMessages::Fate fate);
  // A reliable segment has left. Whether it has for the first time.
  bool emitted(const Emission& emission);
  // The segment that the running task emitted last met a full window, or its message a full queue.
  void refused();
  bool is_trusted() const { return rules_.trusted; }
  // Whether a segment that the window did not keep has put an end to the stream.
  bool is_broken() const { return first_refused_ != UINT64_MAX; }
  // What else was to be re-sent now waits for the next rotation.
  void resend_left() { resend_left_at_ = world_.scheduler().now(); }
  bool is_sending() const;
  // The point at which the running task began its innermost message. Requires: it is sending.
  uint64_t sending_since() const { return open_.at(world_.scheduler().self()).back().since; }
  // The sending end has been told so by a datagram.
  void acknowledged_up_to(uint16_t una);
  void acknowledged(uint16_t seq);

  // --- The receiving end ---

  // A segment is about to be given to the receiving end.
  void fed(uint16_t seq);
  // Its number, counted on, and the number of the first one that has not been fed.
  uint64_t number_of(uint16_t seq) const { return absolute(seq, in_order_); }
  uint64_t in_order() const { return in_order_; }
  // Feedback has left the receiving end.
  void check_feedback(const Emission& emission) const;
  void delivered(std::string_view message);

  // --- Both ---

  // Whether every message has arrived, but for what was sent from the first refused segment on.
  bool is_complete() const;
  // With exact timing: that nothing waits longer than it may for its next re-send.
  void check_resends() const;
  // From the oldest segment that is not acknowledged to the newest.
  uint64_t span() const { return segments_.size() - all_acknowledged_; }
  uint64_t messages_delivered() const { return messages_delivered_; }

 private:
  struct Piece {
    bool known = false;    // has been emitted
    bool settled = false;  // and stored, or refused
    bool fed = false;
    bool acknowledged = false;
    bool refused = false;
    uint8_t flag = 0;
    unsigned int emissions = 0;
    uint64_t emitted_at = 0;  // last
    uint64_t acknowledged_at = 0;
    std::string payload;
  };
  struct OpenMessage {
    std::string bytes;
    size_t emitted = 0;
    uint64_t last_piece = 0;
    uint64_t since = 0;              // in points
    SentMessages::Message call = 0;  // if controlled
    bool is_refusable = false;
    bool is_refused = false;  // whole
    bool is_past_room = false;
  };

  static uint64_t absolute(uint16_t seq, uint64_t near);
  OpenMessage take_innermost();
  void emitted_controlled(Piece& piece, uint64_t number, const Emission& emission);
  void check_room(uint64_t number) const;
  bool is_somebody_overflowing() const;
  void pass_acknowledged();
  void place_messages();
  void check(const char* wrong) const;
  Piece* find(uint16_t seq, uint64_t near);
  void first_emission(Piece& piece, uint64_t number, const Emission& emission);
  void repeated_emission(Piece& piece, uint64_t number, const Emission& emission);
  void check_resend_time(const Piece& piece, uint64_t number) const;
  uint64_t latest_resend(const Piece& piece) const;
  static uint8_t flag_of(const OpenMessage& message, size_t payload);
  void settle_last(const OpenMessage& message);
  void mark_acknowledged(Piece& piece);

  World& world_;
  const std::string name_;
  const Rules rules_;
  std::vector<Piece> segments_;  // by number, counted on past the 16 bits of the wire
  std::map<TaskId, std::vector<OpenMessage>> open_;
  SentMessages sent_;
  std::string begun_;         // what has left of the message that is placed next
  uint64_t all_placed_ = 0;   // all pieces before it belong to messages that have been placed
  uint64_t outstanding_ = 0;  // emitted and kept, not acknowledged
  uint64_t first_refused_ = UINT64_MAX;
  uint64_t resend_left_at_ = 0;    // last, by a callback
  uint64_t in_order_ = 0;          // all before it have been fed
  uint64_t all_acknowledged_ = 0;  // all before it have been acknowledged
  uint64_t next_delivery_ = 0;     // first segment of the next message
  uint64_t messages_delivered_ = 0;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_STREAM_H_
