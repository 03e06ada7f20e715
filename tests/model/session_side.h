// Operations on a whole endpoint, done alike on the library's session and on the model's.
#ifndef TARN_TESTS_MODEL_SESSION_SIDE_H_
#define TARN_TESTS_MODEL_SESSION_SIDE_H_

#include <string>
#include <vector>

#include "tests/model/trace.h"

namespace tarn_model {

// Bits of SessionOp::kCallbacks.
constexpr uint64_t kHasOutput = 1;
constexpr uint64_t kHasReliable = 2;
constexpr uint64_t kHasUnreliable = 4;
constexpr uint64_t kHasError = 8;
constexpr uint64_t kHasAll = 15;

struct SessionOp {
  enum Kind {
    kInput,         // a datagram
    kSendReliable,  // a message
    kSendUnreliable,
    kSendNocp,
    kCheckPacket,
    kReadConv,
    kSetConv,
    kGetConv,
    kAdvance,    // the clock, by `number` ms
    kCallbacks,  // those whose bits are set
    kSendLimit,
    kRecvLimit,
    kActiveTimeout,  // ms
    kMtu,            // of sessions to come
    kThreadSafe,
    kStop,
    kRestart,      // destroy, then create with `number` as mtu and a cycle every `other` ms
    kArm,          // the next time that `on` happens, do `inside` there
    kFastSend,     // `number` messages of one byte, the first one numbered `other`, acknowledged
    kFastReceive,  // one datagram of `number` messages of one byte, numbered from `other` on
  };
  Kind kind = kAdvance;
  uint64_t number = 0;
  uint64_t other = 0;
  std::string bytes;
  What on = What::kDatagram;
  std::vector<SessionOp> inside;
};

std::string describe(const SessionOp& op);
std::vector<SessionOp> simpler(const SessionOp& op);
// Numbers stand inside datagrams here.
inline bool close_gap(std::vector<SessionOp>&, uint16_t) { return false; }
inline const uint16_t* number_of(const SessionOp&) { return nullptr; }

// One of the two endpoints. The calls are those of the C interface, on the current session.
class SessionSide {
 public:
  virtual ~SessionSide() = default;
  void apply(const SessionOp& op);

 protected:
  virtual void input(const std::string& datagram) = 0;
  virtual void send_reliable(const std::string& message) = 0;
  virtual void send_unreliable(const std::string& message) = 0;
  // Returns the caller's buffer as the call leaves it.
  virtual std::string send_nocp(const std::string& message) = 0;
  virtual int check_packet(const std::string& datagram) = 0;
  virtual uint32_t read_conv(const std::string& datagram) = 0;
  virtual void set_conv(uint32_t conv) = 0;
  virtual uint32_t get_conv() = 0;
  virtual void advance(uint32_t ms) = 0;
  virtual void set_callbacks(uint64_t bits) = 0;
  virtual void set(SessionOp::Kind setting, uint32_t value) = 0;
  virtual void stop() = 0;
  virtual void restart(uint32_t mtu, uint32_t cycle_ms) = 0;
  virtual void add(Event event) = 0;
  // No log lines until further notice: they would be most of the cost of the fast operations.
  virtual void mute(bool on) = 0;

  // What every callback of the application does.
  void happened(What what, int64_t number, std::string bytes);

 private:
  void fast_send(uint64_t count, uint64_t first);
  void fast_receive(uint64_t count, uint64_t first);

  What armed_for_ = What::kDatagram;
  std::vector<SessionOp> armed_;
};

}  // namespace tarn_model

#endif  // TARN_TESTS_MODEL_SESSION_SIDE_H_
