// RecvWindow: puts received reliable segments in order and messages together.
#ifndef TARN_SRC_RECV_WINDOW_H_
#define TARN_SRC_RECV_WINDOW_H_

#include <list>
#include <utility>
#include <vector>

#include "oxutils/callback.h"
#include "oxutils/mutex.h"
#include "oxutils/relaxed.h"
#include "src/ack_list.h"
#include "src/feedback.h"
#include "src/packet.h"
#include "src/tarn_config.h"

// Takes segments in any order, delivers them strictly in order of their numbers, joins fragments,
// drops what it has seen, holds a bounded number of early ones, and remembers what is to be
// acknowledged. Part of a session.
//
//   input           one segment: in order, early (write_to_buffer) or a repetition
//     deliver       the next one in order, then those that waited for it (try_release_buffer)
//       accept      its bytes: into the message, which the callback gets if it is complete
//         advance   its number: the last in order from now on
//
// What may fail comes before advance(). After it a segment counts as delivered, also when the
// callback throws; what waits behind it is then released by the next input().
//
// One thread at a time feeds it (input, resume, both output, write_to_buffer, try_release_buffer,
// release): who feeds the session, or has its turn to deliver. hold_back() may run beside that, and
// feedback is taken on any thread (has_feedback, take_feedback, get_una, get_ack). lock_ guards
// what the two sides share and is never held while the window calls out.
class RecvWindow {
 public:
  RecvWindow() = default;
  RecvWindow(const RecvWindow&) = delete;
  RecvWindow& operator=(const RecvWindow&) = delete;

  // `f` takes each message as one contiguous DataView. Of a message that came whole in a lent
  // datagram of usual size it is lent as well: valid only during the call.
  void set_output_callback(oxutils::Function f) { output_callback_ = std::move(f); }

  // One segment; `flag` is its place in the message. False when it came early and the buffer is
  // full: it is dropped and the peer sends it again.
  bool input(unsigned short seq, DataView& data, unsigned char flag) OX_EXCLUDES(lock_);

  // Releases what an exception has held up.
  void resume() OX_EXCLUDES(lock_) {
    if (is_held_up_) try_release_buffer();
  }

  // Takes the next segment in order; delivers the message if it is the last one of it.
  void output(Packet& p) OX_EXCLUDES(lock_);
  // Delivers `data` as a message of its own and makes `seq` the last number in order.
  void output(unsigned short seq, DataView& data) OX_EXCLUDES(lock_);

  // Keeps an early packet, with bytes of its own. False when limit() are kept already.
  bool write_to_buffer(Packet& p) OX_EXCLUDES(lock_) { return write_to_buffer(Packet(p)); }
  bool write_to_buffer(Packet&& p) OX_EXCLUDES(lock_);
  // Delivers what the buffer holds of the run after the last number in order.
  void try_release_buffer() OX_EXCLUDES(lock_);

  // Whether there is anything to report.
  bool has_feedback() OX_EXCLUDES(lock_);
  // Everything to report that fits into `budget` bytes, in one go: get_una, then get_ack.
  void take_feedback(unsigned long budget, Feedback& feedback) OX_EXCLUDES(lock_);

  // The last number delivered in order, if that has not been reported since it changed or since a
  // segment was repeated.
  bool get_una(unsigned short& una) OX_EXCLUDES(lock_);
  // Moves the oldest `max` numbers to acknowledge to the end of `out`. True if there were any, even
  // when `max` lets none through.
  bool get_ack(std::list<unsigned short>& out, unsigned long max) OX_EXCLUDES(lock_);
  // Swaps all numbers to acknowledge with `out`. False, and nothing done, if there are none.
  bool get_ack(std::list<unsigned short>& out) OX_EXCLUDES(lock_);

  // For who decides when something is delivered.

  // What a segment is that has come.
  enum class Arrival { kNew, kRepeated, kRefused };
  // kNew or kRepeated.
  Arrival look_up(unsigned short seq) OX_EXCLUDES(lock_);
  // Keeps and acknowledges a segment, in order or early, that may not be delivered now; at most
  // `limit` of them.
  Arrival hold_back(unsigned short seq, DataView& data, unsigned char flag, size_t limit)
      OX_EXCLUDES(lock_);
  // Delivers what has been held back and is in order.
  void release() OX_EXCLUDES(lock_);
  // Whether number `seq` is the next in order. Feeding thread only.
  bool is_next(unsigned short seq) const {
    return seq == (started ? static_cast<unsigned short>(last_seq + 1) : 0);
  }
  // The last number in order; the one before 0 before that. Feeding thread only.
  unsigned short last() const { return started ? last_seq : static_cast<unsigned short>(-1); }
  // Bytes that have been delivered of a message that is not complete. Feeding thread only.
  size_t staged_size() const { return staging.size(); }
  size_t buffered() const OX_EXCLUDES(lock_);
  // last(), on any thread, and whether anything reliable has come.
  unsigned short last_in_order() const OX_EXCLUDES(lock_);
  bool has_received() const OX_EXCLUDES(lock_);
  // How far `seq` lies ahead of the last number in order; 0 if it does not.
  unsigned int ahead(unsigned short seq) const OX_EXCLUDES(lock_);
  // The early segments to hold back at most, from now on; outlives the window.
  unsigned int limit() const { return *limit_.load(); }
  void set_limit(const oxutils::relaxed<unsigned int>* limit) { limit_ = limit; }

 private:
  bool is_ahead(unsigned short seq) const OX_REQUIRES(lock_);
  bool has_come(unsigned short seq) OX_REQUIRES(lock_);
  bool release_first() OX_EXCLUDES(lock_);
  void settle_first(PacketMap::node_type first) OX_EXCLUDES(lock_);
  // The next segment in order, and what waited for it.
  bool deliver(unsigned short seq, const DataView& data, bool last) OX_EXCLUDES(lock_);
  // `starts`: it is the first one of the stream.
  void accept(unsigned short seq, DataView&& data, bool last, bool starts) OX_EXCLUDES(lock_);
  void advance(unsigned short seq, bool starts) OX_EXCLUDES(lock_);
  void mark_una_updated() OX_EXCLUDES(lock_);
  void log_input(unsigned short seq, unsigned char flag) const;
  static void log_output(unsigned short seq);
  // Adds a fragment to the message that is being put together.
  void stage(DataView& fragment);
  // The staged bytes and these; nothing is staged afterwards.
  DataView join(DataView& last);
  // get_una without its locking and logging.
  bool take_una(unsigned short& una) OX_REQUIRES(lock_);
  static void log_una(bool taken, unsigned short una);
  // Lists the number for acknowledgement and keeps the packet, unless it is there already.
  void store(Packet&& p) OX_REQUIRES(lock_);
  __attribute__((noinline)) void drop_stale(unsigned short seq) OX_REQUIRES(lock_);
  // What the buffer holds under `seq`, taken from it; empty if that is nothing.
  PacketMap::node_type take_buffered(unsigned short seq) OX_REQUIRES(lock_);
  PacketMap::node_type take_next() OX_EXCLUDES(lock_);
  // Done with what take_next() gave; it goes back if it still is the next one in order.
  void settle(PacketMap::node_type taken) OX_EXCLUDES(lock_);
  PacketMap::iterator find_buffered(unsigned short seq) OX_REQUIRES(lock_);

  // What an idle cycle touches comes first, on as few cache lines as possible.
  mutable oxutils::mutex lock_;
  // Whether there may be anything to report: set under lock_ after something has been noted, and
  // cleared under lock_ when all is reported. Read without it.
  oxutils::relaxed<bool> has_news_{false};
  // Written under lock_ by the feeding thread, which reads them freely.
  unsigned short last_seq = 0;
  oxutils::relaxed<bool> started{false};     // number 0 has arrived
  oxutils::relaxed<bool> has_early_{false};  // recv_buffer_ holds something
  bool una_updated OX_GUARDED_BY(lock_) = false;
  // The buffer holds a number that was not within half the ring after last_seq when it came, so
  // that the map's order cannot be relied on to find things.
  bool scattered_ OX_GUARDED_BY(lock_) = false;
  AckList ack_list OX_GUARDED_BY(lock_);
  PacketMap recv_buffer_ OX_GUARDED_BY(lock_);
  oxutils::relaxed<const oxutils::relaxed<unsigned int>*> limit_{
      &TarnConfig::instance()->recv_window_size};
  oxutils::Function output_callback_;
  // Feeding thread only: what has been delivered of a message that is not complete, whether there
  // is one, and how large the last one was, which the next may be like.
  std::vector<char> staging;
  bool is_staging_ = false;
  bool is_held_up_ = false;  // an exception has kept it from releasing the buffer
  size_t last_message_size_ = 0;
};

#endif  // TARN_SRC_RECV_WINDOW_H_
