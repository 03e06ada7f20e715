// The rules of the send window, as plainly as they can be written down.
#ifndef TARN_TESTS_MODEL_MODEL_SEND_WINDOW_H_
#define TARN_TESTS_MODEL_MODEL_SEND_WINDOW_H_

#include <functional>
#include <string>
#include <vector>

#include "tests/model/trace.h"

namespace tarn_model {

// Four buckets of packets. Every 30 ms the bucket before the current one is re-sent, and the next
// one becomes current: what is written into a bucket is re-sent by the pass after next, and then by
// every fourth.
class ModelSendWindow {
 public:
  using Emit = std::function<void(uint16_t seq, const std::string& packet)>;

  // Log lines go to `trace`, which the owner keeps alive.
  explicit ModelSendWindow(Trace& trace) : trace_(trace) {}

  void set_resend_callback(Emit emit);
  // `limit` is the configured window size.
  bool write(uint16_t seq, const std::string& packet, uint32_t limit);
  void ack(uint16_t seq);
  void una(uint16_t una);
  void pass();
  uint16_t count() const { return static_cast<uint16_t>(count_); }

  bool left_the_rules() const { return left_the_rules_; }
  // Every number kept, bucket by bucket.
  std::vector<uint16_t> kept() const;

 private:
  struct Kept {
    uint16_t seq;
    std::string packet;
  };
  using Bucket = std::vector<Kept>;  // oldest first

  void resend(const Bucket& bucket, uint16_t seq);

  Trace& trace_;
  Emit emit_;
  Bucket buckets_[4];
  unsigned current_ = 0;
  uint32_t count_ = 0;
  uint32_t resend_logs_ = 0;
  bool left_the_rules_ = false;
};

}  // namespace tarn_model

#endif  // TARN_TESTS_MODEL_MODEL_SEND_WINDOW_H_
