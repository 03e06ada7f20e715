#include "src/recv_window.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "src/datagram_buffer.h"
#include "src/tarn_log.h"
#include "src/wire_format.h"

namespace {

// Bytes at most that are got for a message before they come.
constexpr size_t kMostReserved = 64 * 1024;

bool ends_message(unsigned char flag) { return flag == wire::kLast || flag == wire::kWhole; }

unsigned short next_of(unsigned short seq) { return static_cast<unsigned short>(seq + 1); }

}  // namespace

void RecvWindow::log_input(unsigned short seq, unsigned char flag) const {
  TARN_LOG_DEBUG("tarn %p input seq %u flag %u ", static_cast<const void*>(this), seq, flag);
}

void RecvWindow::log_output(unsigned short seq) {
  TARN_LOG_VERBOSE("recv window output seq %u", seq);
}

bool RecvWindow::input(unsigned short seq, DataView& data, unsigned char flag) {
  resume();
  log_input(seq, flag);
  const bool last = ends_message(flag);
  if (!started) {
    // The peer's numbering begins at 0; there is no other place to start.
    if (seq != 0) return write_to_buffer(Packet{seq, data, last});
    return deliver(seq, data, last);
  }
  if (SeqLatter()(last_seq, seq)) {
    if (seq != next_of(last_seq)) return write_to_buffer(Packet{seq, data, last});
    log_input(seq, flag);
    return deliver(seq, data, last);
  }
  mark_una_updated();  // a repetition: the peer is told again
  return true;
}

bool RecvWindow::deliver(unsigned short seq, const DataView& data, bool last) {
  log_output(seq);
  // Whoever got the log lines may have fed the same segment.
  if (!is_next(seq)) {
    mark_una_updated();
    return true;
  }
  try {
    accept(seq, DataView(data), last, !started);
    if (has_early_) try_release_buffer();
  } catch (...) {
    is_held_up_ = has_early_;
    throw;
  }
  return true;
}

void RecvWindow::mark_una_updated() {
  const oxutils::scoped_lock hold(lock_);
  una_updated = true;
  has_news_ = true;
}

void RecvWindow::advance(unsigned short seq, bool starts) {
  const oxutils::scoped_lock hold(lock_);
  if (starts) started = true;
  // A jump: what waits may now lie on the other side of last_seq.
  const bool jumps = seq != next_of(last_seq) && seq != last_seq;
  if (jumps && !recv_buffer_.empty()) scattered_ = true;
  last_seq = seq;
  una_updated = true;
  has_news_ = true;
  if (!recv_buffer_.empty()) drop_stale(seq);
}

// Delivered past the buffer while a copy waited there: from inside a callback, or before number 0
// when the whole ring may be waiting. The copy must not surface one wrap later.
void RecvWindow::drop_stale(unsigned short seq) {
  if (!take_buffered(seq).empty()) ack_list.remove(seq);
}

void RecvWindow::output(Packet& p) {
  log_output(p.seq);
  accept(p.seq, DataView(p.data), p.flag != 0, false);
}

// No line is logged between a number's turn and what becomes of its bytes: whoever gets it may feed
// the next number.
void RecvWindow::accept(unsigned short seq, DataView&& data, bool last, bool starts) {
  if (!last) {
    stage(data);
    advance(seq, starts);
    TARN_LOG_VERBOSE("staging seq %u len %d", seq, static_cast<int>(data.size()));
    return;
  }
  const bool stands_alone =
      data.is_lent() ? data.size() <= DatagramBuffer::kOnStack : data.is_exclusive();
  if (is_staging_ || !stands_alone) data = join(data);
  advance(seq, starts);
  if (output_callback_) output_callback_(std::move(data));
}

void RecvWindow::output(unsigned short seq, DataView& data) {
  log_output(seq);
  advance(seq, false);
  if (output_callback_) output_callback_(DataView(data));
}

// Either has no effect when it throws.
void RecvWindow::stage(DataView& fragment) {
  if (!is_staging_) staging.reserve(last_message_size_);
  const size_t size = fragment.size();
  const char* const bytes = size > 0 ? fragment.data() : nullptr;
  staging.insert(staging.end(), bytes, bytes + size);
  is_staging_ = true;
}

DataView RecvWindow::join(DataView& last) {
  oxutils::shared_ptr<Block> message = create_block(0);
  stage(last);
  is_staging_ = false;
  last_message_size_ = std::min(staging.size(), kMostReserved);
  message->adopt(std::exchange(staging, std::vector<char>()));
  return DataView(std::move(message));
}

bool RecvWindow::write_to_buffer(Packet&& p) {
  const unsigned int limit = this->limit();
  size_t size = 0;
  {
    const oxutils::scoped_lock hold(lock_);
    size = recv_buffer_.size();
    if (size < limit) {
      store(std::move(p));
      return true;
    }
  }
  TARN_LOG_DEBUG("tarn %p recv_buffer_ size %u max size %u ", static_cast<void*>(this),
                 static_cast<unsigned int>(size), limit);
  return false;
}

// Listed again when it is repeated; the packet stored first stays.
void RecvWindow::store(Packet&& p) {
  const unsigned short seq = p.seq;
  if (find_buffered(seq) == recv_buffer_.end()) {
    p.data.deep_copy();
    // The number half the ring away counts as the same key.
    if (recv_buffer_.try_emplace(seq, std::move(p)).second) has_early_ = true;
    if (!SeqLatter()(last_seq, seq)) scattered_ = true;
  }
  ack_list.add(seq);
  has_news_ = true;
}

void RecvWindow::try_release_buffer() {
  for (PacketMap::node_type next = take_next(); !next.empty(); next = take_next()) {
    Packet& packet = next.mapped();
    try {
      log_output(packet.seq);
      // Whoever got the log line may have fed the same segment.
      if (packet.seq == next_of(last_seq)) {
        accept(packet.seq, std::move(packet.data), packet.flag != 0, false);
      }
    } catch (...) {
      is_held_up_ = true;
      settle(std::move(next));
      throw;
    }
    settle(std::move(next));
  }
  is_held_up_ = false;
}

PacketMap::node_type RecvWindow::take_next() {
  const oxutils::scoped_lock hold(lock_);
  return take_buffered(next_of(last_seq));
}

void RecvWindow::settle(PacketMap::node_type taken) {
  const unsigned short seq = taken.key();
  const oxutils::scoped_lock hold(lock_);
  if (seq != next_of(last_seq)) {
    ack_list.remove(seq);
    return;
  }
  recv_buffer_.insert(std::move(taken));
  has_early_ = true;
}

PacketMap::node_type RecvWindow::take_buffered(unsigned short seq) {
  if (recv_buffer_.empty()) return PacketMap::node_type();
  const PacketMap::iterator found = find_buffered(seq);
  if (found == recv_buffer_.end()) return PacketMap::node_type();
  PacketMap::node_type taken = recv_buffer_.extract(found);
  if (recv_buffer_.empty()) has_early_ = scattered_ = false;
  return taken;
}

PacketMap::iterator RecvWindow::find_buffered(unsigned short seq) {
  const PacketMap::iterator found = find_exact(recv_buffer_, seq);
  if (found != recv_buffer_.end() || !scattered_) return found;
  return std::find_if(recv_buffer_.begin(), recv_buffer_.end(),
                      [seq](const PacketMap::value_type& each) { return each.first == seq; });
}

bool RecvWindow::take_una(unsigned short& una) {
  if (!started || !una_updated) return false;
  una_updated = false;
  una = last_seq;
  return true;
}

void RecvWindow::log_una(bool taken, unsigned short una) {
  if (taken) {
    TARN_LOG_VERBOSE("got una %u", una);
  } else {
    TARN_LOG_VERBOSE("una empty,not update");
  }
}

bool RecvWindow::has_feedback() {
  if (!has_news_) return false;
  const oxutils::scoped_lock hold(lock_);
  return (started && una_updated) || !ack_list.empty();
}

void RecvWindow::take_feedback(unsigned long budget, Feedback& feedback) {
  if (has_news_) {
    const oxutils::scoped_lock hold(lock_);
    feedback.has_una = take_una(feedback.una);
    if (feedback.has_una) budget -= wire::kUnaSegSize;
    feedback.has_acks = !ack_list.empty();
    if (feedback.has_acks) {
      const size_t count = std::min<unsigned long>(Feedback::max_acks(budget), ack_list.size());
      feedback.acks.reserve(count);
      ack_list.take(count, feedback.acks);
    }
    has_news_ = !ack_list.empty();
  }
  if (started) log_una(feedback.has_una, feedback.una);
}

bool RecvWindow::get_una(unsigned short& una) {
  bool was_started = false;
  bool taken = false;
  {
    const oxutils::scoped_lock hold(lock_);
    was_started = started;
    taken = take_una(una);
  }
  if (was_started) log_una(taken, una);
  return taken;
}

bool RecvWindow::get_ack(std::list<unsigned short>& out, unsigned long max) {
  const oxutils::scoped_lock hold(lock_);
  if (ack_list.empty()) return false;
  ack_list.take(std::min<unsigned long>(max, ack_list.size()), out);
  return true;
}

bool RecvWindow::get_ack(std::list<unsigned short>& out) {
  const oxutils::scoped_lock hold(lock_);
  if (ack_list.empty()) return false;
  std::list<unsigned short> taken;
  ack_list.take(ack_list.size(), taken);
  taken.swap(out);
  for (const unsigned short seq : taken) ack_list.add(seq);
  return true;
}

RecvWindow::Arrival RecvWindow::look_up(unsigned short seq) {
  const oxutils::scoped_lock hold(lock_);
  return has_come(seq) ? Arrival::kRepeated : Arrival::kNew;
}

bool RecvWindow::is_ahead(unsigned short seq) const {
  return !started || SeqLatter()(last_seq, seq);
}

bool RecvWindow::has_come(unsigned short seq) {
  return !is_ahead(seq) || find_buffered(seq) != recv_buffer_.end();
}

RecvWindow::Arrival RecvWindow::hold_back(unsigned short seq, DataView& data, unsigned char flag,
                                          size_t limit) {
  log_input(seq, flag);
  const oxutils::scoped_lock hold(lock_);
  const bool is_new = !has_come(seq);
  if (!is_new && !is_ahead(seq)) {
    una_updated = true;
    has_news_ = true;
    return Arrival::kRepeated;
  }
  if (is_new && recv_buffer_.size() >= limit) return Arrival::kRefused;
  store(Packet{seq, data, ends_message(flag)});
  return is_new ? Arrival::kNew : Arrival::kRepeated;
}

void RecvWindow::release() {
  if (started || release_first()) try_release_buffer();
}

// False if number 0 has not come.
bool RecvWindow::release_first() {
  PacketMap::node_type first;
  {
    const oxutils::scoped_lock hold(lock_);
    first = take_buffered(0);
  }
  if (first.empty()) return false;
  try {
    log_output(0);
    accept(0, DataView(first.mapped().data), first.mapped().flag != 0, true);
  } catch (...) {
    settle_first(std::move(first));
    throw;
  }
  settle_first(std::move(first));
  return true;
}

void RecvWindow::settle_first(PacketMap::node_type first) {
  const oxutils::scoped_lock hold(lock_);
  if (started) {
    ack_list.remove(0);
    return;
  }
  recv_buffer_.insert(std::move(first));
  has_early_ = true;
}

size_t RecvWindow::buffered() const {
  const oxutils::scoped_lock hold(lock_);
  return recv_buffer_.size();
}

unsigned short RecvWindow::last_in_order() const {
  const oxutils::scoped_lock hold(lock_);
  return last();
}

bool RecvWindow::has_received() const {
  const oxutils::scoped_lock hold(lock_);
  return started || !recv_buffer_.empty();
}

// Before the first one in order nothing lies behind.
unsigned int RecvWindow::ahead(unsigned short seq) const {
  const oxutils::scoped_lock hold(lock_);
  if (!started) return seq + 1U;
  return SeqLatter()(last_seq, seq) ? static_cast<unsigned short>(seq - last_seq) : 0;
}
