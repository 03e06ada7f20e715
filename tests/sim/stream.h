// Stream: what one end of a conversation sends reliably, and what the other end makes of it.
#ifndef TARN_TESTS_SIM_STREAM_H_
#define TARN_TESTS_SIM_STREAM_H_

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tests/sim/datagram.h"
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
  };

  Stream(World& world, std::string name, const Rules& rules)
      : world_(world), name_(std::move(name)), rules_(rules) {}

  // --- The sending end ---

  // The running task begins and ends the sending of a message. Within one message another one may
  // be sent, from inside a callback. `cut_short` allows the end before the last piece is out.
  void open_message(std::string bytes);
  void close_message(bool cut_short);
  // A reliable segment has left.
  void emitted(const Emission& emission);
  // The segment that the running task emitted last met a full window.
  void refused();
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
    uint64_t since = 0;  // in points
  };

  static uint64_t absolute(uint16_t seq, uint64_t near);
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
  uint64_t first_refused_ = UINT64_MAX;
  uint64_t resend_left_at_ = 0;    // last, by a callback
  uint64_t in_order_ = 0;          // all before it have been fed
  uint64_t all_acknowledged_ = 0;  // all before it have been acknowledged
  uint64_t next_delivery_ = 0;     // first segment of the next message
  uint64_t messages_delivered_ = 0;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_STREAM_H_
