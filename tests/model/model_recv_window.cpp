#include "tests/model/model_recv_window.h"

#include <algorithm>

#include "tests/model/sequence_numbers.h"

namespace tarn_model {
namespace {

constexpr size_t kMostAcks = 32767;

}  // namespace

bool ModelRecvWindow::input(uint16_t seq, const std::string& payload, unsigned flag,
                            uint32_t limit) {
  log_input(seq, flag);
  const Segment segment{seq, payload, flag == 1 || flag == 3};
  if (!started_) {
    if (seq != 0) return write_to_buffer(segment, limit);
    started_ = true;
    return deliver(segment);
  }
  if (!is_after(last_, seq)) {
    una_updated_ = true;
    return true;
  }
  if (steps(last_, seq) != 1) return write_to_buffer(segment, limit);
  log_input(seq, flag);
  return deliver(segment);
}

void ModelRecvWindow::log_input(uint16_t seq, unsigned flag) {
  log(trace_, 4, "tarn %s input seq %u flag %u ", kWindow, seq, flag);
}

bool ModelRecvWindow::deliver(const Segment& segment) {
  output(segment);
  release_buffer();
  return true;
}

void ModelRecvWindow::output(const Segment& segment) {
  advance(segment.seq);
  if (!segment.last) {
    log(trace_, 5, "staging seq %u len %d", segment.seq, static_cast<int>(segment.payload.size()));
    staged_.push_back(segment.payload);
    return;
  }
  std::string message;
  for (const std::string& part : staged_) message += part;
  staged_.clear();
  if (deliver_) deliver_(message + segment.payload);
}

void ModelRecvWindow::output(uint16_t seq, const std::string& message) {
  advance(seq);
  if (deliver_) deliver_(message);
}

void ModelRecvWindow::advance(uint16_t seq) {
  log(trace_, 5, "recv window output seq %u", seq);
  last_ = seq;
  una_updated_ = true;
  // A copy that still waits would come up again when the numbers come around.
  Segment stale;
  if (take_waiting(seq, stale)) forget_acks(seq);
}

bool ModelRecvWindow::write_to_buffer(const Segment& segment, uint32_t limit) {
  if (buffer_.size() >= limit) {
    log(trace_, 4, "tarn %s recv_buffer_ size %u max size %u ", kWindow,
        static_cast<unsigned>(buffer_.size()), limit);
    return false;
  }
  // Listed even when it is there already and the old one stays.
  if (acks_.size() < kMostAcks) acks_.push_back(segment.seq);
  for (const Segment& one : buffer_) {
    if (!is_same_key(one.seq, segment.seq)) continue;
    // Among numbers of the whole ring, the one half of it away need not be met with.
    if (one.seq != segment.seq && buffer_.size() > 1) left_the_rules_ = true;
    return true;
  }
  buffer_.push_back(segment);
  return true;
}

void ModelRecvWindow::release_buffer() {
  Segment next;
  while (take_waiting(static_cast<uint16_t>(last_ + 1), next)) {
    output(next);
    forget_acks(next.seq);
  }
}

bool ModelRecvWindow::take_waiting(uint16_t seq, Segment& segment) {
  for (size_t i = 0; i < buffer_.size(); ++i) {
    if (buffer_[i].seq != seq) continue;
    segment = buffer_[i];
    buffer_.erase(buffer_.begin() + static_cast<std::ptrdiff_t>(i));
    return true;
  }
  return false;
}

void ModelRecvWindow::forget_acks(uint16_t seq) {
  acks_.erase(std::remove(acks_.begin(), acks_.end(), seq), acks_.end());
}

bool ModelRecvWindow::take_una(uint16_t& una) {
  if (!started_) return false;
  if (!una_updated_) {
    log(trace_, 5, "una empty,not update");
    return false;
  }
  una_updated_ = false;
  una = last_;
  log(trace_, 5, "got una %u", una);
  return true;
}

bool ModelRecvWindow::take_acks(std::vector<uint16_t>& acks, uint64_t max) {
  if (acks_.empty()) return false;
  const auto end =
      acks_.begin() + static_cast<std::ptrdiff_t>(std::min<uint64_t>(max, acks_.size()));
  acks.insert(acks.end(), acks_.begin(), end);
  acks_.erase(acks_.begin(), end);
  return true;
}

}  // namespace tarn_model
