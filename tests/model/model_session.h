// The rules of a whole endpoint, as plainly as they can be written down.
#ifndef TARN_TESTS_MODEL_MODEL_SESSION_H_
#define TARN_TESTS_MODEL_MODEL_SESSION_H_

#include <memory>
#include <string>
#include <vector>

#include "tests/model/model_recv_window.h"
#include "tests/model/model_send_window.h"
#include "tests/model/session_side.h"

namespace tarn_model {

// The process's settings, with their defaults.
struct ModelSettings {
  uint32_t mtu = 1400;
  uint32_t rtx_timeout = 50;
  uint32_t active_timeout = 5000;
  uint32_t send_window_size = 32;
  uint32_t recv_window_size = 32;
};

class ModelSession : public SessionSide {
 public:
  // `now` is the time in ms at which the first session is created, with the default settings.
  explicit ModelSession(uint64_t now);

  Trace trace;

  void destroy();
  bool left_the_rules() const { return send_->left_the_rules() || recv_->left_the_rules(); }
  const ModelSendWindow& send_window() const { return *send_; }
  const ModelRecvWindow& recv_window() const { return *recv_; }
  uint16_t next_seq() const { return next_seq_; }
  uint32_t conv() const { return conv_; }
  int64_t mss() const { return mss_; }

 protected:
  void input(const std::string& datagram) override;
  void send_reliable(const std::string& message) override;
  void send_unreliable(const std::string& message) override;
  std::string send_nocp(const std::string& message) override;
  int check_packet(const std::string& datagram) override;
  uint32_t read_conv(const std::string& datagram) override;
  void set_conv(uint32_t conv) override;
  uint32_t get_conv() override { return conv_; }
  void advance(uint32_t ms) override;
  void set_callbacks(uint64_t bits) override { callbacks_ = bits; }
  void set(SessionOp::Kind setting, uint32_t value) override;
  void stop() override;
  void restart(uint32_t mtu, uint32_t cycle_ms) override;
  void add(Event event) override { trace.push_back(std::move(event)); }
  void mute(bool on) override { mute_log(on); }

 private:
  struct Timer {
    int32_t interval;  // 0 or less: runs once
    uint64_t due;
    void (ModelSession::*run)();
  };

  void create();
  void add_timer(int32_t interval, void (ModelSession::*run)());
  void run_if_due(Timer& timer);
  void resend_pass() { send_->pass(); }
  void cycle();
  void check_active();
  void active() { last_active_ = now_; }
  void error(int code);
  bool has(uint64_t callback) const { return (callbacks_ & callback) != 0; }

  void send_segment(uint16_t seq, const std::string& payload, unsigned flag);
  void resend(uint16_t seq, const std::string& segment);
  // Header, conv, feedback and payload, in one datagram.
  void output(const std::string& payload, bool with_feedback);
  void emit(const std::string& datagram);

  void dispatch(unsigned type, unsigned flag, const std::string& body);
  void got_reliable(const std::string& body, unsigned flag);
  void got_unreliable(const std::string& body);
  void got_acks(const std::string& body);
  void got_una(const std::string& body);
  void got_bye();
  void got_conv(const std::string& body);
  void deliver(const std::string& message);
  unsigned long unacknowledged() const { return send_->count(); }

  ModelSettings settings_;
  uint64_t now_;
  uint64_t last_active_ = 0;
  int64_t mss_ = 0;
  uint32_t conv_ = 0;
  uint16_t next_seq_ = 0;
  uint64_t callbacks_ = 0;
  bool stopped_ = false;
  bool got_bye_ = false;
  std::vector<Timer> timers_;
  std::unique_ptr<ModelSendWindow> send_;
  std::unique_ptr<ModelRecvWindow> recv_;
};

}  // namespace tarn_model

#endif  // TARN_TESTS_MODEL_MODEL_SESSION_H_
