// Endpoint: one session of the library and the application around it.
#ifndef TARN_TESTS_SIM_ENDPOINT_H_
#define TARN_TESTS_SIM_ENDPOINT_H_

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "tarn/control.h"
#include "tests/sim/control_plan.h"
#include "tests/sim/control_watch.h"
#include "tests/sim/introspection.h"
#include "tests/sim/link.h"
#include "tests/sim/settings.h"
#include "tests/sim/stream.h"
#include "tests/sim/writer.h"

namespace tarn_sim {

// What an application does inside its callbacks.
struct Habits {
  double slow_share = 0;     // of the callbacks that take
  uint64_t slow_ns = 0;      // up to this long
  double reply_share = 0;    // of the callbacks that send something
  unsigned int replies = 0;  // at most
  double destroy_share = 0;  // of the callbacks that destroy their session
  double orphan_share = 0;   // of the callbacks that destroy what another thread has just created
};

constexpr int kErrors = TARN_ERROR_UNREACHABLE + 1;

// Thrown by callbacks, through the tarn_update() that they are called from.
struct LeftCallback {};

// Calls the library for the tasks of the simulator and watches what comes back: each emission, each
// delivery and each error has to be allowed at that moment.
class Endpoint {
 public:
  struct Plan {
    std::string name;
    Settings settings;
    Habits habits;
    ControlPlan control;
  };
  // `out` is what this end sends, `in` what it gets; datagrams leave over `link`.
  Endpoint(World& world, Plan plan, Random random, Stream& out, Stream& in, Link& link);
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  // With `io` the session is attached to that handle and has no output callback.
  void open(uint32_t conv, void* io = nullptr);
  // To be called with each line of the log: the session is used from the first one on that names
  // it, while it is still being created.
  static void seen_in_log(World& world, const char* line);
  // Once; from any task, also from inside a callback.
  void destroy(unsigned int wait_ms);
  // Until a destruction begins.
  bool is_open() const { return handle_ != nullptr && !destroyed_; }
  // Until the destruction is over: while it waits, the session works on.
  bool takes_datagrams() const { return handle_ != nullptr && !gone_; }
  bool is_deleted() const;

  void send_reliable(size_t size);
  void send_unreliable(size_t size);
  void send_in_place(size_t size);

  // --- Controlled sessions ---

  // The first calls, where they come late.
  void begin_control();
  void change(const OptionSetting& setting);
  // What tarn_try_send_reliable() returns.
  int try_send(size_t size);
  // Sends it as soon as there is room.
  void write(size_t size) { writer_.write(size); }
  size_t unwritten() const { return writer_.waiting(); }
  size_t send_room();
  void pause(bool on);
  bool is_paused() const { return watch_ && watch_->is_paused(); }
  // The point at which it was told last that there is room.
  uint64_t told_at() const { return watch_->told_at(); }
  // Whether nothing waits for room, and nobody to be told of it.
  bool is_written() const { return !watch_ || (!watch_->is_waiting() && unwritten() == 0); }
  // How the session's counters differ from what was seen of it; empty if they do not.
  std::string counter_difference();
  // At most, of what it has been given to send.
  uint64_t segments_to_send() const;
  // Requires: all is acknowledged.
  void check_at_rest();
  const ControlLimits& limits() const { return limits_; }

  // One datagram from the network. One task at a time.
  void feed(std::string datagram);
  // The running task is about to feed the session, by itself, and has done so.
  void begin_feed(std::string datagram);
  void end_feed();
  // The library sends a datagram on the session's socket, which takes it if it is `accepted`.
  void sent(std::string_view datagram, bool accepted);
  // Sets the callbacks and the conversation id again, to what they are.
  void set_again();

  // Its socket is about to be closed: what it sends from now on may be seen nowhere.
  void cut_off() { cut_off_ = true; }
  bool is_cut_off() const { return cut_off_; }

  // From now on the application does nothing inside callbacks.
  void calm_down() { calm_ = true; }

  // To be called whenever another task may have run.
  void observe();
  // Packets in the send window.
  unsigned int kept() const;

  uint64_t errors(TarnError code) const { return errors_[code]; }
  const std::string& name() const { return plan_.name; }

 private:
  class Callback;
  class Call;

  static int on_output(char* data, int len, void* self);
  static int on_reliable(char* data, int len, void* self);
  static int on_unreliable(char* data, int len, void* self);
  static int on_error(TarnError code, void* self);
  static void on_writable(void* session, void* self);
  void set_callbacks();
  void use(void* handle);
  // Whether the task is in a call on the session that has not returned.
  bool is_inside(TaskId task) const;
  // Whether a task other than this one may be delivering.
  bool others_deliver(TaskId task) const;
  bool is_foreign(std::string_view datagram);
  void count_fed(std::string_view datagram);
  void count_arrival();
  ControlWatch::Attempt begin_attempt(size_t size);
  void check_result(int result, const char* call) const;
  TarnStats stats();
  bool is_counted() const { return watch_ && !plan_.control.late; }
  // Whether it is all feedback.
  bool emitted(std::string_view datagram);
  void put_on_link(std::string_view datagram, bool feedback_only);
  void check_size(const Emission& emission) const;
  void check_purpose(const Emission& emission) const;
  void observe_control(const WindowUse& use) const;
  bool is_far_ahead() const;
  void raised(TarnError code);
  void check_inactive() const;
  void reply();
  void check_wait(uint64_t waited_ns, unsigned int wait_ms) const;
  void expect_of(std::string_view datagram);
  void tell_acknowledged(std::string_view datagram);
  void act_in_callback();
  void destroy_orphan();
  void leave_update();
  void note_activity(uint32_t tick_before);
  std::string draw_bytes(size_t size);

  World& world_;
  const Plan plan_;
  const ControlLimits limits_;
  Random random_;
  Stream& out_;
  Stream& in_;
  Link& link_;
  void* handle_ = nullptr;
  void* io_ = nullptr;
  uint32_t conv_ = 0;
  bool destroyed_ = false;
  bool gone_ = false;
  bool calm_ = false;
  bool cut_off_ = false;
  unsigned int replies_left_;
  std::unique_ptr<ControlWatch> watch_;  // if it is controlled
  Writer writer_;
  uint32_t own_conv_ = 0;           // the id that it goes by
  bool is_begun_ = false;           // the first calls have been made
  bool is_dropped_ = false;         // what is being fed belongs to another conversation
  std::set<uint64_t> taken_;        // segments by number
  std::optional<uint64_t> coming_;  // the one being fed
  unsigned int rejections_ = 0;     // of what is being fed
  std::multiset<TaskId> resumers_;
  uint64_t pauses_ = 0;  // and resumes
  uint64_t pauses_at_feed_ = 0;
  bool is_repeat_unsure_ = false;  // something came again while another task delivered
  bool has_received_ = false;
  uint32_t received_at_tick_ = 0;
  uint64_t peers_quiet_ended_ = 0;  // when a silence of the peer's to be reported was last broken

  std::multiset<TaskId> callers_;
  TaskId feeder_ = 0;
  bool feeding_ = false;
  std::string fed_;  // the datagram
  uint32_t fed_at_tick_ = 0;
  uint64_t feeding_since_ = 0;        // in points
  std::deque<std::string> expected_;  // unreliable messages of the datagram being fed
  unsigned int expected_byes_ = 0;
  uint64_t send_window_full_at_ = 0;  // when it was last seen so, in points
  uint64_t recv_window_full_at_ = 0;
  uint32_t quiet_since_ = 0;       // tick of the last activity, or before
  uint64_t long_quiet_ended_ = 0;  // when a silence to be reported was last broken
  uint64_t errors_[kErrors] = {};
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_ENDPOINT_H_
