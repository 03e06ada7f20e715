// Endpoint: one session of the library and the application around it.
#ifndef TARN_TESTS_SIM_ENDPOINT_H_
#define TARN_TESTS_SIM_ENDPOINT_H_

#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <string_view>

#include "tarn/tarn.h"
#include "tests/sim/introspection.h"
#include "tests/sim/link.h"
#include "tests/sim/settings.h"
#include "tests/sim/stream.h"

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
  void set_callbacks();
  void use(void* handle);
  // Whether the task is in a call on the session that has not returned.
  bool is_inside(TaskId task) const;
  // Whether it is all feedback.
  bool emitted(std::string_view datagram);
  void put_on_link(std::string_view datagram, bool feedback_only);
  void check_size(const Emission& emission) const;
  void raised(TarnError code);
  void check_inactive() const;
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
  uint64_t errors_[4] = {};
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_ENDPOINT_H_
