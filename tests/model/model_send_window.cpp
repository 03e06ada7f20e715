#include "tests/model/model_send_window.h"

#include <algorithm>

#include "tests/model/sequence_numbers.h"

namespace tarn_model {

void ModelSendWindow::set_resend_callback(Emit emit) {
  log(trace_, 3, "%s func: %s", kWindow, emit ? kFunction : kNull);
  emit_ = std::move(emit);
}

bool ModelSendWindow::write(uint16_t seq, const std::string& packet, uint32_t limit) {
  if (count_ >= limit) return false;
  Bucket& bucket = buckets_[current_];
  if (!have_an_order(bucket, seq)) left_the_rules_ = true;
  // Counted even when it is there already and the old one stays.
  ++count_;
  size_t at = 0;
  while (at < bucket.size() && is_after(bucket[at].seq, seq)) ++at;
  if (at < bucket.size() && is_same_key(bucket[at].seq, seq)) return true;
  bucket.insert(bucket.begin() + static_cast<std::ptrdiff_t>(at), Kept{seq, packet});
  return true;
}

void ModelSendWindow::ack(uint16_t seq) {
  for (Bucket& bucket : buckets_) {
    for (size_t i = 0; i < bucket.size(); ++i) {
      if (bucket[i].seq != seq) continue;
      bucket.erase(bucket.begin() + static_cast<std::ptrdiff_t>(i));
      --count_;
      return;
    }
  }
}

void ModelSendWindow::una(uint16_t una) {
  for (Bucket& bucket : buckets_) {
    const size_t before = bucket.size();
    size_t first_kept = 0;
    while (first_kept < before && !is_after(una, bucket[first_kept].seq)) ++first_kept;
    bucket.erase(bucket.begin(), bucket.begin() + static_cast<std::ptrdiff_t>(first_kept));
    count_ -= static_cast<uint32_t>(first_kept);
    log(trace_, 5, "send window got una %u,bucket count %lu -> %lu", una,
        static_cast<unsigned long>(before), static_cast<unsigned long>(bucket.size()));
  }
}

void ModelSendWindow::pass() {
  if (!emit_) return;
  Bucket& bucket = buckets_[(current_ + 3) % 4];
  std::vector<uint16_t> seqs;
  for (const Kept& one : bucket) seqs.push_back(one.seq);
  // What is written while the pass is under way is written after it.
  current_ = (current_ + 1) % 4;
  for (const uint16_t seq : seqs) resend(bucket, seq);
}

// What an earlier re-send of the same pass got acknowledged is not re-sent any more.
void ModelSendWindow::resend(const Bucket& bucket, uint16_t seq) {
  const auto found =
      std::find_if(bucket.begin(), bucket.end(), [seq](const Kept& one) { return one.seq == seq; });
  if (found == bucket.end()) return;
  const std::string packet = found->packet;
  emit_(seq, packet);
  ++resend_logs_;
  if (resend_logs_ >= 5 && resend_logs_ % 100 != 0) return;
  log(trace_, 3, "%s resend data size: %u seq: %u func: %s", kWindow,
      static_cast<unsigned>(bucket.size()), seq, kFunction);
}

std::vector<uint16_t> ModelSendWindow::kept() const {
  std::vector<uint16_t> seqs;
  for (const Bucket& bucket : buckets_) {
    for (const Kept& one : bucket) seqs.push_back(one.seq);
  }
  return seqs;
}

}  // namespace tarn_model
