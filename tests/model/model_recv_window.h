// The rules of the receive window, as plainly as they can be written down.
#ifndef TARN_TESTS_MODEL_MODEL_RECV_WINDOW_H_
#define TARN_TESTS_MODEL_MODEL_RECV_WINDOW_H_

#include <functional>
#include <string>
#include <vector>

#include "tests/model/trace.h"

namespace tarn_model {

// Segments are delivered in order of their numbers, beginning with 0. Early ones wait in a buffer
// and are listed for acknowledgement; what was delivered already only has the una told again.
class ModelRecvWindow {
 public:
  using Deliver = std::function<void(const std::string& message)>;

  struct Segment {
    uint16_t seq;
    std::string payload;
    bool last;  // of its message
  };

  explicit ModelRecvWindow(Trace& trace) : trace_(trace) {}

  void set_output_callback(Deliver deliver) { deliver_ = std::move(deliver); }
  // `limit` is the configured window size. False: came early, and there is no room.
  bool input(uint16_t seq, const std::string& payload, unsigned flag, uint32_t limit);

  void output(const Segment& segment);
  // A message of its own that makes `seq` the last number in order.
  void output(uint16_t seq, const std::string& message);
  bool write_to_buffer(const Segment& segment, uint32_t limit);
  void release_buffer();

  bool take_una(uint16_t& una);
  // The oldest `max`. True if there were any, even when none of them may be taken.
  bool take_acks(std::vector<uint16_t>& acks, uint64_t max);
  bool has_feedback() const { return (started_ && una_updated_) || !acks_.empty(); }

  bool left_the_rules() const { return left_the_rules_; }
  bool started() const { return started_; }
  uint16_t last() const { return last_; }
  const std::vector<Segment>& waiting() const { return buffer_; }
  const std::vector<uint16_t>& acks() const { return acks_; }

 private:
  void log_input(uint16_t seq, unsigned flag);
  bool deliver(const Segment& segment);
  void advance(uint16_t seq);
  bool take_waiting(uint16_t seq, Segment& segment);
  void forget_acks(uint16_t seq);

  Trace& trace_;
  Deliver deliver_;
  bool started_ = false;  // number 0 has come
  uint16_t last_ = 0;     // last number in order
  bool una_updated_ = false;
  std::vector<Segment> buffer_;  // in order of arrival
  std::vector<uint16_t> acks_;   // in order of arrival
  std::vector<std::string> staged_;
  bool left_the_rules_ = false;
};

}  // namespace tarn_model

#endif  // TARN_TESTS_MODEL_MODEL_RECV_WINDOW_H_
