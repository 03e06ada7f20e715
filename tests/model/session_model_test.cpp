// A whole session, through the C interface and on a clock of its own, beside its model.
#include "src/tarn_registry.h"
#include "src/tarn_session.h"
#include "tarn/tarn.h"
#include "tests/model/campaign.h"
#include "tests/model/library_log.h"
#include "tests/model/model_session.h"
#include "tests/model/session_draw.h"
#include "tests/support/kit_worker.h"
#include "tests/support/session_fixture.h"
#include "tests/support/virtual_clock.h"

namespace tarn_model {
namespace {

constexpr size_t kPrefix = 12;

// Goes on from one session to the next: a step back would stall the timers.
uint64_t now_ms = 1'000'000;

class LibrarySession : public SessionSide {
 public:
  explicit LibrarySession(tarn_test::VirtualClock& clock) : clock_(clock) {
    tarn_test::restore_default_settings();
    create();
  }
  ~LibrarySession() override {
    destroy();
    // Cancelled timers leave the worker's queues when they fall due.
    advance(100);
    tarn_test::restore_default_settings();
    LibraryLog::take();
  }

  void destroy() {
    tarn_destroy(handle_);
    tarn_test::worker_turn();
    LibraryLog::use_names();
  }

 private:
  static char* chars(std::string& bytes) { return bytes.data(); }
  static int len(const std::string& bytes) { return static_cast<int>(bytes.size()); }

  void create() {
    handle_ = tarn_create();
    tarn_test::worker_turn();
    LibraryLog::set_name(handle_, sizeof(TarnSession), kSession);
    set_callbacks(kHasAll);
  }

  void input(const std::string& datagram) override {
    std::string bytes = datagram;
    tarn_input(handle_, chars(bytes), len(bytes));
  }
  void send_reliable(const std::string& message) override {
    std::string bytes = message;
    tarn_send_reliable(handle_, chars(bytes), len(bytes));
  }
  void send_unreliable(const std::string& message) override {
    std::string bytes = message;
    tarn_send_unreliable(handle_, chars(bytes), len(bytes));
  }
  std::string send_nocp(const std::string& message) override {
    std::string buffer = std::string(kPrefix, '.') + message;
    tarn_send_unreliable_nocp(handle_, chars(buffer), len(message));
    return buffer;
  }
  int check_packet(const std::string& datagram) override {
    std::string bytes = datagram;
    return tarn_check_packet(chars(bytes), len(bytes));
  }
  uint32_t read_conv(const std::string& datagram) override {
    std::string bytes = datagram;
    return tarn_read_packet_conv(chars(bytes), len(bytes));
  }
  void set_conv(uint32_t conv) override { tarn_set_conv(handle_, conv); }
  uint32_t get_conv() override { return tarn_get_conv(handle_); }

  // Nothing is recorded here meanwhile: the worker may run the timers before it is told to.
  void advance(uint32_t ms) override {
    now_ms += ms;
    clock_.advance_ms(ms);
    tarn_test::worker_turn();
  }

  void set_callbacks(uint64_t bits) override {
    const auto data = [bits](uint64_t bit, TarnDataCallback callback) {
      return (bits & bit) != 0 ? callback : nullptr;
    };
    tarn_set_output_callback(handle_, data(kHasOutput, on_datagram), this);
    tarn_set_recv_reliable_callback(handle_, data(kHasReliable, on_reliable), this);
    tarn_set_recv_unreliable_callback(handle_, data(kHasUnreliable, on_unreliable), this);
    tarn_set_error_callback(handle_, (bits & kHasError) != 0 ? on_error : nullptr, this);
  }

  void set(SessionOp::Kind setting, uint32_t value) override {
    switch (setting) {
      case SessionOp::kSendLimit:
        return tarn_config_send_window_size(value);
      case SessionOp::kRecvLimit:
        return tarn_config_recv_window_size(value);
      case SessionOp::kActiveTimeout:
        return tarn_config_active_timeout(value);
      case SessionOp::kMtu:
        return tarn_config_mtu(value);
      case SessionOp::kThreadSafe:
        return tarn_config_thread_safe(value != 0);
      default:
        break;
    }
  }

  void stop() override {
    tarn_get_instance(handle_)->stop();
    // Until the worker has cancelled the timers they may run once more.
    tarn_test::worker_turn();
  }

  void restart(uint32_t mtu, uint32_t cycle_ms) override {
    destroy();
    tarn_config_mtu(mtu);
    tarn_config_rtx_timeout(cycle_ms);
    create();
  }

  void add(Event event) override { LibraryLog::add(std::move(event)); }
  void mute(bool on) override { LibraryLog::mute(on); }

  static int record(What what, char* data, int size, void* self) {
    static_cast<LibrarySession*>(self)->happened(what, 0,
                                                 std::string(data, static_cast<size_t>(size)));
    return -1;  // ignored
  }
  static int on_datagram(char* data, int size, void* self) {
    return record(What::kDatagram, data, size, self);
  }
  static int on_reliable(char* data, int size, void* self) {
    return record(What::kReliable, data, size, self);
  }
  static int on_unreliable(char* data, int size, void* self) {
    return record(What::kUnreliable, data, size, self);
  }
  static int on_error(TarnError code, void* self) {
    static_cast<LibrarySession*>(self)->happened(What::kError, code, "");
    return -1;
  }

  tarn_test::VirtualClock& clock_;
  void* handle_ = nullptr;
};

class SessionPair {
 public:
  using Op = SessionOp;

  Op draw(Random& random) { return draw_session_op(random, model_); }

  std::string step(const Op& op) {
    model_.apply(op);
    if (left_the_rules()) return std::string();
    library_.apply(op);
    return compare();
  }

  bool left_the_rules() const { return model_.left_the_rules(); }

 private:
  std::string compare() {
    Trace expected;
    expected.swap(model_.trace);
    return difference(expected, LibraryLog::take());
  }

  tarn_test::VirtualClock clock_{now_ms};
  ModelSession model_{now_ms};
  LibrarySession library_{clock_};
};

TEST(SessionModel, AgreesWithTheLibraryStepByStep) {
  const tarn_test::RunningWorker worker;
  tarn_test::worker_turn();  // what it says when it starts is said
  const LibraryLog log;
  run_campaign<SessionPair>(300'000);
}

}  // namespace
}  // namespace tarn_model
