#include "src/recv_window.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <utility>
#include <vector>

#include "src/tarn_config.h"
#include "src/tarn_log.h"
#include "src/wire_format.h"

namespace {

// Numbers whose room in a full list of acknowledgements is worth a walk through it.
constexpr size_t kWorthSettling = 64;
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
  if (!started) start();
  accept(seq, DataView(data), last);
  if (has_early_) try_release_buffer();
  return true;
}

bool RecvWindow::is_next(unsigned short seq) const {
  return started ? seq == next_of(last_seq) : seq == 0;
}

void RecvWindow::start() {
  const oxutils::scoped_lock hold(lock_);
  started = true;
  has_news_ = true;
}

void RecvWindow::mark_una_updated() {
  const oxutils::scoped_lock hold(lock_);
  una_updated = true;
  has_news_ = true;
}

void RecvWindow::advance(unsigned short seq) {
  const oxutils::scoped_lock hold(lock_);
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
  Packet stale;
  if (take_buffered(seq, stale)) unlist(seq);
}

void RecvWindow::output(Packet& p) {
  log_output(p.seq);
  accept(p.seq, DataView(p.data), p.flag != 0);
}

// No line is logged between a number's turn and what becomes of its bytes: whoever gets it may feed
// the next number.
void RecvWindow::accept(unsigned short seq, DataView&& data, bool last) {
  advance(seq);
  if (!last) {
    stage(data);
    TARN_LOG_VERBOSE("staging seq %u len %d", seq, static_cast<int>(data.size()));
    return;
  }
  if (is_staging_ || !(data.is_lent() || data.is_exclusive())) {
    stage(data);
    data = take_staged();
  }
  if (output_callback_) output_callback_(std::move(data));
}

void RecvWindow::output(unsigned short seq, DataView& data) {
  log_output(seq);
  advance(seq);
  if (output_callback_) output_callback_(DataView(data));
}

void RecvWindow::stage(DataView& fragment) {
  if (!is_staging_) staging.reserve(last_message_size_);
  is_staging_ = true;
  const size_t size = fragment.size();
  if (size == 0) return;
  const char* const bytes = fragment.data();
  staging.insert(staging.end(), bytes, bytes + size);
}

// Before the message is delivered: its receiver may feed this window again.
DataView RecvWindow::take_staged() {
  is_staging_ = false;
  last_message_size_ = std::min(staging.size(), kMostReserved);
  return DataView(std::exchange(staging, std::vector<char>()));
}

bool RecvWindow::write_to_buffer(Packet&& p) {
  const unsigned int limit = TarnConfig::instance()->recv_window_size;
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

void RecvWindow::store(Packet&& p) {
  // Listed again when it is repeated; the packet stored first stays.
  list(p.seq);
  if (find_buffered(p.seq) != recv_buffer_.end()) return;
  if (!SeqLatter()(last_seq, p.seq)) scattered_ = true;
  const auto inserted = recv_buffer_.try_emplace(p.seq);
  if (!inserted.second) return;  // the number half the ring away counts as the same key
  has_early_ = true;
  p.data.deep_copy();
  inserted.first->second = std::move(p);
}

void RecvWindow::try_release_buffer() {
  Packet packet;
  while (take_next(packet)) {
    log_output(packet.seq);
    const bool fed_meanwhile = packet.seq != next_of(last_seq);
    if (!fed_meanwhile) accept(packet.seq, std::move(packet.data), packet.flag != 0);
    const oxutils::scoped_lock hold(lock_);
    unlist(packet.seq);
  }
}

bool RecvWindow::take_next(Packet& p) {
  const oxutils::scoped_lock hold(lock_);
  return take_buffered(next_of(last_seq), p);
}

void RecvWindow::list(unsigned short seq) {
  const bool was_unlisted = std::find(unlisted_.begin(), unlisted_.end(), seq) != unlisted_.end();
  const bool is_full = ack_list.size() >= wire::kMaxAcks;
  // Goes through the whole list: not for every segment that a peer may send.
  if (was_unlisted || (is_full && unlisted_.size() >= kWorthSettling)) settle_ack_list();
  if (ack_list.size() < wire::kMaxAcks) ack_list.push_back(seq);
  has_news_ = true;
}

void RecvWindow::unlist(unsigned short seq) {
  if (!ack_list.empty()) unlisted_.push_back(seq);
}

void RecvWindow::settle_ack_list() {
  if (unlisted_.empty()) return;
  std::vector<unsigned short> gone;
  gone.swap(unlisted_);
  std::sort(gone.begin(), gone.end());
  ack_list.remove_if(
      [&gone](unsigned short seq) { return std::binary_search(gone.begin(), gone.end(), seq); });
}

bool RecvWindow::take_buffered(unsigned short seq, Packet& p) {
  if (recv_buffer_.empty()) return false;
  const PacketMap::iterator found = find_buffered(seq);
  if (found == recv_buffer_.end()) return false;
  p = std::move(found->second);
  recv_buffer_.erase(found);
  if (recv_buffer_.empty()) has_early_ = scattered_ = false;
  return true;
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

bool RecvWindow::take_acks(std::list<unsigned short>& out, unsigned long max) {
  settle_ack_list();
  if (ack_list.empty()) return false;
  const auto count = static_cast<std::ptrdiff_t>(std::min<unsigned long>(max, ack_list.size()));
  out.splice(out.end(), ack_list, ack_list.begin(), std::next(ack_list.begin(), count));
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
  settle_ack_list();
  return (started && una_updated) || !ack_list.empty();
}

void RecvWindow::take_feedback(unsigned long budget, Feedback& feedback) {
  if (has_news_) {
    const oxutils::scoped_lock hold(lock_);
    feedback.has_una = take_una(feedback.una);
    if (feedback.has_una) budget -= wire::kUnaSegSize;
    if (!ack_list.empty()) {
      feedback.has_acks = take_acks(feedback.acks, Feedback::max_acks(budget));
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
  return take_acks(out, max);
}

bool RecvWindow::get_ack(std::list<unsigned short>& out) {
  const oxutils::scoped_lock hold(lock_);
  settle_ack_list();
  if (ack_list.empty()) return false;
  ack_list.swap(out);
  return true;
}
