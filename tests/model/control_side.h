// Operations on a session under control, done alike on the library's session and on the model's.
#ifndef TARN_TESTS_MODEL_CONTROL_SIDE_H_
#define TARN_TESTS_MODEL_CONTROL_SIDE_H_

#include <string>
#include <vector>

#include "tarn/control.h"
#include "tests/model/trace.h"

namespace tarn_model {

struct ControlOp {
  enum Kind {
    kTrySend,  // a message of `number` bytes
    kSend,
    kInput,   // a datagram
    kPause,   // 0: resume
    kOption,  // `option` becomes `number`
    kListen,  // for the writable callback, or not
    kArm,     // the next time that `on` happens, do `inside` there
  };
  Kind kind = kTrySend;
  int64_t number = 0;
  TarnOption option = TARN_OPTION_SEND_WINDOW;
  std::string bytes;
  What on = What::kDatagram;
  std::vector<ControlOp> inside;
};

std::string describe(const ControlOp& op);
std::vector<ControlOp> simpler(const ControlOp& op);
// Numbers stand inside datagrams here.
inline bool close_gap(std::vector<ControlOp>&, uint16_t) { return false; }
inline const uint16_t* number_of(const ControlOp&) { return nullptr; }

// What a session says of itself.
struct ControlState {
  uint64_t room = 0;
  uint64_t outstanding = 0;
  uint64_t queued_messages = 0;
  uint64_t queued_bytes = 0;
  uint64_t buffered = 0;
  uint64_t refused = 0;
  uint64_t sent = 0;
  uint64_t segments_sent = 0;
  uint64_t repeated = 0;
  uint64_t rejected = 0;
};

// One of the two sessions.
class ControlSide {
 public:
  virtual ~ControlSide() = default;
  // The operation, and what the session says afterwards.
  void step(const ControlOp& op);

 protected:
  virtual int try_send(const std::string& message) = 0;
  virtual void send(const std::string& message) = 0;
  virtual void input(const std::string& datagram) = 0;
  virtual void pause(bool on) = 0;
  virtual int set_option(TarnOption option, int64_t value) = 0;
  virtual void listen(bool on) = 0;
  virtual ControlState state() = 0;
  virtual void add(Event event) = 0;

  // What every callback of the application does. A reliable segment has left, a message has come,
  // an error is raised, there is room: kResend.
  void happened(What what, int64_t number, std::string bytes);

 private:
  void apply(const ControlOp& op);
  std::string next_message(int64_t size);

  What armed_for_ = What::kDatagram;
  std::vector<ControlOp> armed_;
  char next_byte_ = 0;
};

}  // namespace tarn_model

#endif  // TARN_TESTS_MODEL_CONTROL_SIDE_H_
