#include "src/send_window.h"

#include <limits.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "src/tarn_log.h"
#include "src/tarn_thread.h"
#include "src/tarn_timer.h"
#include "src/wire_format.h"

namespace {

constexpr unsigned int kDrainStepMs = 100;
// The first few re-sends are logged, then every hundredth.
constexpr unsigned int kAlwaysLogged = 5;
constexpr unsigned int kLoggedEvery = 100;

// Whether a wait from `start` to `end` is over. Compared as unsigned numbers, so that a wait whose
// end lies behind the wrap of the tick is cut short; the second test is for a tick that has slept
// through the end and the wrap.
bool has_passed(unsigned int start, unsigned int end) {
  const unsigned int now = TarnTimerQueue::cur_tick();
  return now >= end || (now < start && now - start >= end - start && now - start <= INT_MAX);
}

}  // namespace

SendWindow::SendWindow() {
  timer_id_ = TarnThread::instance()->run_every(kResendPeriodMs,
                                                oxutils::Function(this, &SendWindow::resend));
}

void SendWindow::set_resend_callback(oxutils::Function f, Owner* owner) {
  TARN_LOG_INFO("%p func: %p", static_cast<void*>(this), static_cast<void*>(f.get()));
  const oxutils::scoped_lock hold(lock_);
  resend_callback_ = std::move(f);
  owner_ = owner;
}

bool SendWindow::is_full() const { return count_ >= limit(); }

bool SendWindow::write(unsigned short seq, SegmentNode&& segment) {
  const oxutils::scoped_lock hold(lock_);
  const bool has_room = !is_full();
  if (has_room) {
    insert(seq, std::move(segment));
  } else {
    pool_.give(std::move(segment));
  }
  return has_room;
}

bool SendWindow::write(unsigned short seq, DataView& data) {
  const size_t size = data.size();
  SegmentNode segment = pool_.take(size);
  const oxutils::scoped_lock hold(lock_);
  if (is_full()) return false;
  data.deep_copy();
  if (size > 0) memcpy(segment.mapped().data(), data.data(), size);
  insert(seq, std::move(segment));
  return true;
}

void SendWindow::keep(unsigned short seq, SegmentNode&& segment) {
  const oxutils::scoped_lock hold(lock_);
  insert(seq, std::move(segment));
}

void SendWindow::insert(unsigned short seq, SegmentNode&& segment) {
  // Counted even where the bucket holds this number already and keeps the old packet.
  ++count_;
  segment.key() = seq;
  Bucket& bucket = buckets[current];
  bucket.insert(bucket.end(), std::move(segment));
}

void SendWindow::drop(Bucket& bucket, Bucket::iterator packet) {
  --count_;
  pool_.give(bucket.extract(packet));
}

void SendWindow::ack(unsigned short seq) {
  const oxutils::scoped_lock hold(lock_);
  for (Bucket& bucket : buckets) {
    const auto found = find_exact(bucket, seq);
    if (found == bucket.end()) continue;
    drop(bucket, found);
    return;
  }
}

void SendWindow::una(unsigned short una) {
  const bool is_logged = TarnLog::instance()->enabled(TarnLog::LOG_VERBOSE);
  unsigned long sizes[kBucketCount][2];
  {
    const oxutils::scoped_lock hold(lock_);
    for (unsigned int i = 0; i < kBucketCount; ++i) {
      Bucket& bucket = buckets[i];
      if (is_logged) sizes[i][0] = bucket.size();
      for (auto oldest = bucket.begin(); oldest != bucket.end() && !SeqLatter()(una, oldest->first);
           oldest = bucket.begin()) {
        drop(bucket, oldest);
      }
      if (is_logged) sizes[i][1] = bucket.size();
    }
  }
  if (!is_logged) return;
  for (const auto& size : sizes) {
    TARN_LOG_VERBOSE("send window got una %u,bucket count %lu -> %lu", una, size[0], size[1]);
  }
}

unsigned short SendWindow::count() const {
  const oxutils::scoped_lock hold(lock_);
  return static_cast<unsigned short>(count_);
}

bool SendWindow::keeps(unsigned short seq) const {
  const oxutils::scoped_lock hold(lock_);
  return std::any_of(std::begin(buckets), std::end(buckets), [seq](const Bucket& bucket) {
    return find_exact(bucket, seq) != bucket.end();
  });
}

std::vector<unsigned short> SendWindow::numbers() const {
  std::vector<unsigned short> numbers;
  const oxutils::scoped_lock hold(lock_);
  for (const Bucket& bucket : buckets) {
    for (const auto& each : bucket) numbers.push_back(each.first);
  }
  return numbers;
}

size_t SendWindow::payload_bytes() const {
  size_t bytes = 0;
  const oxutils::scoped_lock hold(lock_);
  for (const Bucket& bucket : buckets) {
    for (const auto& each : bucket) bytes += each.second.size() - wire::kReliableHeadSize;
  }
  return bytes;
}

void SendWindow::stop() {
  if (timer_id_ != 0) TarnThread::instance()->cancel_timer(timer_id_);
}

void SendWindow::stop(unsigned int wait_ms) {
  const unsigned int start = TarnTimerQueue::cur_tick();
  const unsigned int end = start + wait_ms;
  while (wait_ms != 0 && (has_more_ || count() != 0) && !has_passed(start, end)) {
    usleep(std::min(wait_ms, kDrainStepMs) * 1000);
  }
  stop();
  TARN_LOG_INFO("tarn stopped, legacy packet num %u tick end %u wait ms %u", count(), end, wait_ms);
}

void SendWindow::resend() {
  Pass pass;
  if (!begin_pass(pass)) return;
  for (const unsigned short seq : pass.seqs) resend_packet(pass, seq);
}

// False when there is nothing to send. The rotation moves on at once, so that what is written while
// the pass is under way gets its full time before its first re-send.
bool SendWindow::begin_pass(Pass& pass) {
  const oxutils::scoped_lock hold(lock_);
  if (!resend_callback_) return false;
  pass.bucket = (current + kBucketCount - 1) % kBucketCount;
  current = (current + 1) % kBucketCount;
  if (count_ == 0) {
    pool_.clear();
    return false;
  }
  pool_.settle();
  const Bucket& bucket = buckets[pass.bucket];
  if (bucket.empty()) return false;
  pass.seqs.reserve(bucket.size());
  for (const auto& each : bucket) pass.seqs.push_back(each.first);
  pass.emit = resend_callback_;
  if (owner_ != nullptr) pass.owner = owner_->hold();
  return true;
}

// The packet may have been acknowledged since the pass began, from inside an earlier emission too;
// and while it is on its way out, so that goes as a copy.
void SendWindow::resend_packet(const Pass& pass, unsigned short seq) {
  DataView packet;
  if (!find_packet(pass.bucket, seq, packet)) return;
  bool keep = true;
  pass.emit(seq, std::move(packet), &keep);
  log_resend(pass, seq);
}

bool SendWindow::find_packet(unsigned int bucket, unsigned short seq, DataView& packet) const {
  const oxutils::scoped_lock hold(lock_);
  const auto found = find_exact(buckets[bucket], seq);
  if (found == buckets[bucket].end()) return false;
  const SegmentBytes& segment = found->second;
  packet = DataView(std::vector<char>(segment.data(), segment.data() + segment.size()));
  return true;
}

void SendWindow::log_resend(const Pass& pass, unsigned short seq) {
  size_t size = 0;
  {
    const oxutils::scoped_lock hold(lock_);
    ++resend_logs_;
    if (resend_logs_ >= kAlwaysLogged && resend_logs_ % kLoggedEvery != 0) return;
    size = buckets[pass.bucket].size();
  }
  TARN_LOG_INFO("%p resend data size: %u seq: %u func: %p", static_cast<void*>(this),
                static_cast<unsigned int>(size), seq, static_cast<void*>(pass.emit.get()));
}
