#include "tests/fuzz/support/pair_end.h"

#include <algorithm>
#include <utility>

#include "src/tarn_config.h"
#include "src/tarn_session.h"
#include "tests/fuzz/support/exact_copy.h"
#include "tests/fuzz/support/fuzz_check.h"
#include "tests/fuzz/support/plain_decoder.h"
#include "tests/fuzz/support/private_member.h"

namespace tarn_fuzz {

struct SendSeq {
  using Type = unsigned short TarnSession::*;
  friend Type member(SendSeq);
};
template struct PrivateMember<SendSeq, &TarnSession::send_seq_>;

struct ReceiveWindow {
  using Type = RecvWindow TarnSession::*;
  friend Type member(ReceiveWindow);
};
template struct PrivateMember<ReceiveWindow, &TarnSession::recv_window_>;

struct LastSeq {
  using Type = unsigned short RecvWindow::*;
  friend Type member(LastSeq);
};
template struct PrivateMember<LastSeq, &RecvWindow::last_seq>;

struct Started {
  using Type = oxutils::relaxed<bool> RecvWindow::*;
  friend Type member(Started);
};
template struct PrivateMember<Started, &RecvWindow::started>;

namespace {

constexpr size_t kMaxPayload = 65533;
enum SegmentType : unsigned { kReliable, kUnreliable, kAck, kUna, kBye, kHeartbeat, kConv };

void count_from(TarnSession& session, unsigned first_seq) {
  if (first_seq == 0) return;
  session.*member(SendSeq()) = static_cast<unsigned short>(first_seq);
  RecvWindow& window = session.*member(ReceiveWindow());
  window.*member(LastSeq()) = static_cast<unsigned short>(first_seq - 1);
  window.*member(Started()) = true;
}

}  // namespace

PairEnd::PairEnd(unsigned side, const LibraryRun& run, unsigned first_seq, unsigned mtu,
                 Hooks hooks)
    : side_(side), run_(run), mtu_(mtu), hooks_(std::move(hooks)), last_active_(run.tick()) {
  tarn_config_mtu(mtu);
  handle_ = tarn_create();
  FUZZ_CHECK(handle_ != nullptr);
  count_from(*static_cast<TarnSession*>(handle_), first_seq);
  set_callbacks();
}

void PairEnd::set_callbacks() {
  tarn_set_output_callback(handle_, &PairEnd::on_output, this);
  tarn_set_recv_reliable_callback(handle_, &PairEnd::on_reliable, this);
  tarn_set_recv_unreliable_callback(handle_, &PairEnd::on_unreliable, this);
  tarn_set_error_callback(handle_, &PairEnd::on_error, this);
}

unsigned PairEnd::last_received() const {
  return static_cast<TarnSession*>(handle_)->*member(ReceiveWindow()).*member(LastSeq());
}

size_t PairEnd::segments_of(size_t size) const {
  const size_t most = std::min(mtu_, kMaxPayload);
  return size == 0 || most == 0 ? 1 : (size + most - 1) / most;
}

// Different from message to message, from end to end, and at every shift.
std::string PairEnd::message(unsigned index, size_t size) const {
  std::string bytes(size, '\0');
  uint32_t state = (index * 2 + side_) * 2654435761U + 1;
  for (char& each : bytes) {
    state = state * 1664525 + 1013904223;
    each = static_cast<char>(state >> 24);
  }
  return bytes;
}

bool PairEnd::sends_nothing(size_t size) const { return is_destroyed_ || (mtu_ == 0 && size > 0); }

void PairEnd::send_reliable(size_t size) {
  const size_t index = sent_.size();
  ExactCopy copy(message(static_cast<unsigned>(index), size));
  if (sends_nothing(size)) {
    tarn_send_reliable(handle_, copy.data(), copy.length());
    return;
  }
  sent_.push_back(size);
  if (size == 0) {
    first_lost_ = std::min(first_lost_, index);
    first_empty_ = std::min(first_empty_, index);
  }
  sends_.push_back(index);
  tarn_send_reliable(handle_, copy.data(), copy.length());
  sends_.pop_back();
  last_active_ = run_.tick();
}

void PairEnd::send_unreliable(size_t size) {
  const std::string bytes = message(static_cast<unsigned>(sent_unreliable_.size()), size);
  sent_unreliable_.insert(bytes);
  ExactCopy copy(bytes);
  tarn_send_unreliable(handle_, copy.data(), copy.length());
  last_active_ = run_.tick();
}

void PairEnd::send_unreliable_nocp(size_t size) {
  if (size < 6) return;
  const std::string bytes = message(static_cast<unsigned>(sent_unreliable_.size()), size);
  sent_unreliable_.insert(bytes);
  ExactCopy copy(std::string(12, '?') + bytes);
  tarn_send_unreliable_nocp(handle_, copy.data(), static_cast<int>(size));
}

void PairEnd::input(const std::string& datagram) {
  ExactCopy copy(datagram);
  last_active_ = run_.tick();
  ++inputs_;
  tarn_input(handle_, copy.data(), copy.length());
  --inputs_;
}

void PairEnd::destroy() {
  if (is_destroyed_) return;
  is_destroyed_ = true;
  FUZZ_CHECK(tarn_destroy(handle_) == 0);
}

void PairEnd::check_output(const std::string& datagram) {
  FUZZ_CHECK(datagram.size() > 2 && datagram[0] == '$' && datagram[1] == '\0');
  const PlainDatagram plain = decode(datagram);
  FUZZ_CHECK(!plain.is_cut_off && !plain.segments.empty());
  size_t used = 2;
  size_t feedback = 0;
  size_t payload = 0;
  for (const PlainSegment& each : plain.segments) {
    const size_t size = 3 + each.body.size();
    used += size;
    if (each.type == kUna || each.type == kAck) {
      feedback += size;
    } else if (each.type != kConv) {
      payload += size;
      FUZZ_CHECK(each.type == kReliable || each.type == kUnreliable);
    }
    if (each.type == kReliable) {
      FUZZ_CHECK(each.body.size() - 2 <= std::min(mtu_, kMaxPayload));
      ++reliable_datagrams_;
    }
  }
  FUZZ_CHECK(used == datagram.size());
  check_feedback(feedback, payload);
}

// Acknowledgements fill the segment size up and no more, but for the corner where an una has left
// less than the head of a list.
void PairEnd::check_feedback(size_t feedback, size_t payload) const {
  if (feedback == 0) return;
  FUZZ_CHECK(payload < mtu_);
  const size_t room = mtu_ - payload;
  FUZZ_CHECK(room >= 6);
  FUZZ_CHECK(feedback <= room || room == 6 || room == 7);
}

void PairEnd::check_reliable(const std::string& bytes) {
  if (!is_trusting_) return;
  FUZZ_CHECK(received_ < peer_->sent_.size());
  FUZZ_CHECK(received_ < peer_->first_empty_);
  FUZZ_CHECK(bytes == peer_->message(static_cast<unsigned>(received_), peer_->sent_[received_]));
  ++received_;
}

void PairEnd::check_error(TarnError code) {
  switch (code) {
    case TARN_ERROR_SEND_OVERFLOW:
      FUZZ_CHECK(!sends_.empty());
      first_lost_ = std::min(first_lost_, sends_.back());
      break;
    case TARN_ERROR_RECV_REJECTED:
      FUZZ_CHECK(inputs_ > 0);
      break;
    case TARN_ERROR_BYE:
      FUZZ_CHECK(!is_trusting_ && inputs_ > 0);
      break;
    default:
      FUZZ_CHECK(code == TARN_ERROR_INACTIVE);
      FUZZ_CHECK(run_.tick() - last_active_ > TarnConfig::instance()->active_timeout);
      break;
  }
}

int PairEnd::on_output(char* data, int len, void* user) {
  PairEnd& self = *static_cast<PairEnd*>(user);
  FUZZ_CHECK(!self.is_destroyed_);
  std::string datagram(data, static_cast<size_t>(len));
  self.check_output(datagram);
  self.hooks_.datagram(self, std::move(datagram));
  self.hooks_.callback(self);
  return 0;
}

int PairEnd::on_reliable(char* data, int len, void* user) {
  PairEnd& self = *static_cast<PairEnd*>(user);
  FUZZ_CHECK(!self.is_destroyed_ && self.inputs_ > 0);
  const std::string bytes(data, static_cast<size_t>(len));
  self.check_reliable(bytes);
  self.hooks_.callback(self);
  // Whatever the callback has done, its bytes stay as they are until it returns.
  FUZZ_CHECK(bytes.compare(0, std::string::npos, data, bytes.size()) == 0);
  return 0;
}

int PairEnd::on_unreliable(char* data, int len, void* user) {
  PairEnd& self = *static_cast<PairEnd*>(user);
  FUZZ_CHECK(!self.is_destroyed_ && self.inputs_ > 0);
  const std::string bytes(data, static_cast<size_t>(len));
  FUZZ_CHECK(!self.is_trusting_ || self.peer_->sent_unreliable_.count(bytes) == 1);
  self.hooks_.callback(self);
  FUZZ_CHECK(bytes.compare(0, std::string::npos, data, bytes.size()) == 0);
  return 0;
}

int PairEnd::on_error(TarnError code, void* user) {
  PairEnd& self = *static_cast<PairEnd*>(user);
  // A send that has met a full window may say so although its own datagram ended the session.
  FUZZ_CHECK(!self.is_destroyed_ || code == TARN_ERROR_SEND_OVERFLOW);
  self.check_error(code);
  self.hooks_.callback(self);
  return 0;
}

}  // namespace tarn_fuzz
