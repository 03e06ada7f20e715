// Operations on a send window, done alike on the library's and on the model's.
#ifndef TARN_TESTS_MODEL_SEND_WINDOW_OPS_H_
#define TARN_TESTS_MODEL_SEND_WINDOW_OPS_H_

#include <string>
#include <vector>

#include "tests/model/random.h"
#include "tests/model/trace.h"

namespace tarn_model {

struct SendOp {
  enum Kind { kWrite, kGiveAway, kRepeat, kAck, kUna, kPass, kLimit, kCallback };
  Kind kind = kPass;
  uint16_t seq = 0;
  uint32_t number = 0;  // kLimit: packets; kRepeat: times; kCallback: 0 for none
  std::string packet;
  // kPass: done when the first packet has been re-sent, while the pass is still under way.
  std::vector<SendOp> inside;
};

std::string describe(const SendOp& op);
std::vector<SendOp> simpler(const SendOp& op);
bool close_gap(std::vector<SendOp>& ops, uint16_t seq);
const uint16_t* number_of(const SendOp& op);

// One of the two windows.
class SendSide {
 public:
  virtual ~SendSide() = default;
  void apply(const SendOp& op);

 protected:
  virtual bool write(uint16_t seq, const std::string& packet) = 0;
  // The overload that takes the packet's bytes for itself.
  virtual bool give_away(uint16_t seq, const std::string& packet) = 0;
  virtual void ack(uint16_t seq) = 0;
  virtual void una(uint16_t una) = 0;
  virtual void pass() = 0;
  virtual void set_limit(uint32_t packets) = 0;
  virtual void set_callback(bool set) = 0;
  virtual unsigned count() = 0;
  virtual void add(Event event) = 0;

  // What the resend callback does.
  void resent(uint16_t seq, const std::string& packet);

 private:
  std::vector<SendOp> inside_;
};

// What an operation is drawn from.
struct SendOutlook {
  std::vector<uint16_t> kept;
  uint16_t next = 0;  // number of the next packet
};

// `next` moves on when it is used.
SendOp draw_send_op(Random& random, SendOutlook& outlook);

}  // namespace tarn_model

#endif  // TARN_TESTS_MODEL_SEND_WINDOW_OPS_H_
