// Operations on a receive window, done alike on the library's and on the model's.
#ifndef TARN_TESTS_MODEL_RECV_WINDOW_OPS_H_
#define TARN_TESTS_MODEL_RECV_WINDOW_OPS_H_

#include <string>
#include <vector>

#include "tests/model/model_recv_window.h"
#include "tests/model/random.h"
#include "tests/model/trace.h"

namespace tarn_model {

struct RecvOp {
  enum Kind {
    kInput,
    kInputLent,     // the bytes are lent: delivered where they lie
    kRepeat,        // the same input `number` times
    kOutputPacket,  // the parts of input, called on their own
    kOutputMessage,
    kWriteToBuffer,
    kRelease,
    kUna,
    kAcks,  // at most `number`
    kAllAcks,
    kFeedback,  // a budget of `number` bytes
    kLook,      // whether there is anything to report
    kLimit,
    kCallback,  // 0 for none
  };
  Kind kind = kInput;
  uint16_t seq = 0;
  unsigned flag = 3;
  uint64_t number = 0;
  std::string payload;
  // Done when the first message has been delivered, while the operation is still under way.
  std::vector<RecvOp> inside;
};

std::string describe(const RecvOp& op);
std::vector<RecvOp> simpler(const RecvOp& op);
bool close_gap(std::vector<RecvOp>& ops, uint16_t seq);
const uint16_t* number_of(const RecvOp& op);

// One of the two windows.
class RecvSide {
 public:
  virtual ~RecvSide() = default;
  void apply(const RecvOp& op);

 protected:
  virtual bool input(uint16_t seq, const std::string& payload, unsigned flag, bool lent) = 0;
  virtual void output(uint16_t seq, const std::string& payload, bool last) = 0;
  virtual void output(uint16_t seq, const std::string& message) = 0;
  virtual bool write_to_buffer(uint16_t seq, const std::string& payload, bool last) = 0;
  virtual void release_buffer() = 0;
  virtual bool take_una(uint16_t& una) = 0;
  virtual bool take_acks(std::vector<uint16_t>& acks, uint64_t max) = 0;
  virtual bool take_all_acks(std::vector<uint16_t>& acks) = 0;
  // The una segment and the ack segment.
  virtual std::string take_feedback(uint64_t budget) = 0;
  virtual bool has_feedback() = 0;
  virtual void set_limit(uint32_t packets) = 0;
  virtual void set_callback(bool set) = 0;
  virtual void add(Event event) = 0;

  // What the output callback does.
  void delivered(const std::string& message);

 private:
  void do_input(const RecvOp& op);
  void do_feedback(const RecvOp& op);
  bool is_last(const RecvOp& op) const { return op.flag == 1 || op.flag == 3; }

  std::vector<RecvOp> inside_;
};

RecvOp draw_recv_op(Random& random, const ModelRecvWindow& window);
// Fills the list of numbers to acknowledge, releases some of it and adds others.
std::vector<RecvOp> draw_recv_fill(Random& random, const ModelRecvWindow& window);
// Brings a fresh window to a place on the ring.
std::vector<RecvOp> draw_recv_start(Random& random);

}  // namespace tarn_model

#endif  // TARN_TESTS_MODEL_RECV_WINDOW_OPS_H_
