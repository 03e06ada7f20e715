// TarnSession: one conversation between two endpoints.
#ifndef TARN_SRC_TARN_SESSION_H_
#define TARN_SRC_TARN_SESSION_H_

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <vector>

#include "oxutils/mutex.h"
#include "oxutils/relaxed.h"
#include "oxutils/smart_ptr/enable_shared_from_this.h"
#include "oxutils/smart_ptr/shared_ptr.h"
#include "src/callback_slot.h"
#include "src/data_view.h"
#include "src/datagram_reader.h"
#include "src/feedback.h"
#include "src/recv_window.h"
#include "src/send_window.h"
#include "src/session_control.h"
#include "src/wire_format.h"
#include "tarn/control.h"
#include "tarn/tarn.h"

// Turns messages into datagrams and datagrams into messages. Owned by the registry's shared_ptr and
// by the references that calls in flight hold; the final release usually runs on the worker.
//
// Threads: applications call anything on any thread; cycle() and resend() run where due timers do,
// on the worker or inside tarn_update().
// input() is fed by one thread at a time. Application callbacks run on whichever of these threads
// causes them, with no lock held. Whoever calls out keeps the session alive meanwhile: the exported
// calls by the registry's reference, cycle() and the send window's pass by one of their own.
//
// Locks: state_mutex_ guards the numbering, is held to change the course, which may be read
// without, and to look at it and record activity in one; the windows have their own. Callbacks,
// conversation id and the other flags are read and written without a lock.
//
// An exception that a callback throws passes through whatever called out. What has been numbered by
// then is kept for re-sending, and what has been taken in order counts as delivered.
class TarnSession : public oxutils::enable_shared_from_this<TarnSession>, public SendWindow::Owner {
 public:
  using DataCallback = TarnDataCallback;
  using ErrorCallback = TarnErrorCallback;

  // One parsed segment; `data` is its body, a slice of the datagram.
  struct Segment {
    unsigned char type = 0;
    unsigned char flag = 0;
    DataView data;
  };

  struct Bytes {
    const char* data;
    size_t size;
  };

  // Requires: the worker has been started, since the send window's timer runs on it.
  TarnSession();
  ~TarnSession() override;
  TarnSession(const TarnSession&) = delete;
  TarnSession& operator=(const TarnSession&) = delete;

  // Life: tarn_session.cpp.

  // A reference, which the timers keep while they call out; empty if no shared_ptr owns the
  // session.
  oxutils::shared_ptr<SendWindow::Owner> hold() override;
  // Starts the periodic cycle. Called once, when a shared_ptr owns the session.
  void start();
  // Marks the session stopped, then cancels its timers. From then on traffic calls do nothing.
  void stop();
  // The same after at most `delay_ms` ms, on the calling thread, for unacknowledged packets to
  // drain.
  void stop(unsigned int delay_ms);
  // The same without a word, for a session that nobody got. Worker only.
  void retire();
  // Keeps the session alive until what has been handed to the worker so far has run. Requires: a
  // shared_ptr owns the session.
  void keep_until_worker_has_run();
  // The cycle timer's function, every rtx_timeout ms.
  void cycle();
  // Records activity.
  void active() OX_EXCLUDES(state_mutex_);
  // Tells the application, unless the session is stopped.
  void error(TarnError code);

  // Null removes a callback.
  void set_output_callback(DataCallback callback, void* user);
  void set_recv_reliable_callback(DataCallback callback, void* user);
  void set_recv_unreliable_callback(DataCallback callback, void* user);
  void set_error_callback(ErrorCallback callback, void* user);
  // Tells this object from every other one that ever was; not 0.
  uint64_t number() const { return number_; }

  // 0 means none.
  void set_conv(unsigned int conv) { conv_ = conv; }
  unsigned int get_conv() const { return conv_; }

  // One received datagram.
  void input(char* datagram, size_t size);

  // Format: tarn_session_wire.cpp.

  // Take the header, or one segment, from the front of `view`. False, and logged, if it is none.
  static bool parse_head(DataView& view, char& magic, unsigned char& version);
  static bool parse_segment(DataView& view, Segment& seg);
  // Write the 3 bytes of a segment head at the front of the view or buffer, which must hold them.
  static void make_seg_head(DataView& data_view, unsigned char type, unsigned char flag,
                            unsigned long length);
  static void make_seg_head_nocp(char* buf, int len, unsigned char type, unsigned char flag,
                                 unsigned long length);
  // What tarn_check_packet and tarn_read_packet_conv answer.
  static int check_packet(char* data, int len);
  static unsigned int read_conv(char* data, int len);

  // Reliable channel: tarn_session_reliable.cpp.

  // Sends one message of `size` bytes as one segment or, if it is too long, as fragments.
  void send_reliable(const char* data, size_t size) {
    send_message(Bytes{data, size}, wire::kWhole);
  }
  // The send window's function: emits a stored packet again. `*keep` becomes false when the session
  // is stopped.
  void resend(unsigned short seq, DataView packet, bool* keep);
  bool got_reliable(DataView& segment, unsigned char flag);

  // Unreliable channel: tarn_session_unreliable.cpp.

  void send_unreliable(DataView& data);
  // `buf` holds 12 bytes for the prefix, then `len` bytes. Requires: len >= 6.
  void send_unreliable(char* buf, int len);
  bool got_unreliable(DataView& body);

  // Feedback, activity and bye: tarn_session_feedback.cpp.

  // The two halves of cycle().
  void cycle_feedback();
  void cycle_check_active();
  void got_bye();
  void got_heartbeat();
  void bye();

  // What tarn/control.h has: tarn_session_control.cpp. Results are 0 or a negative errno value; the
  // first call of any of these makes what a session keeps for them.

  int set_option(TarnOption option, long long value);
  int get_option(TarnOption option, long long* value);
  int set_profile(TarnProfile profile);
  int get_stats(TarnStats* stats, size_t size);

  // tarn_session_control_send.cpp.

  int try_send_reliable(const char* data, size_t size);
  size_t send_room();
  int set_writable_callback(TarnWritableCallback callback, void* user);

  // tarn_session_control_receive.cpp.

  int pause_receive(bool on);

  // The same on DataViews, for callers that have one: tarn_session_views.cpp.

  void input(DataView packet);
  // Frames `payload`, which is segments, and emits it; acknowledgements ride along where they fit,
  // unless `no_feedback`.
  void output(DataView payload, bool no_feedback);
  // Sends `data`, consuming all but the last fragment, as one segment with `flag` or as fragments.
  void send_reliable(DataView& data, unsigned char flag);
  // Tell the application, unless the session is stopped.
  void recv_reliable(DataView message);
  void recv_unreliable(DataView data);
  // Bodies of segments.
  bool got_ack(DataView& body);
  bool got_una(DataView& body);
  bool got_conv(DataView& body);
  // Fill a view with a whole segment, or leave it as it is.
  void make_conv(DataView& conv_seg) const;
  void make_feedback(DataView& ack_seg, DataView& una_seg, unsigned long budget);
  void make_heartbeat(DataView& heartbeat_seg);

 private:
  TarnSession(oxutils::Function resend, oxutils::Function deliver);

  // What keeps calls from the short way: that the session is stopped, has been called by way of
  // tarn/control.h, or has not sent a message yet. One test finds all three.
  enum Course : unsigned char { kPlain = 0, kStopped = 1, kControlled = 2, kUnsent = 4 };
  static constexpr unsigned char kNotPlain = kStopped | kControlled;

  enum FeedbackRides : bool { kWithoutFeedback = false, kWithFeedback = true };
  // Whether the call has made the locked stopped test already. After that only its own callbacks
  // can stop the session in a way that has to be seen, and a look without the lock sees it.
  enum StoppedTest : bool { kNotTested = false, kTested = true };

  // What goes into one reliable segment.
  struct Fragment {
    unsigned short seq;
    unsigned char flag;
    Bytes payload;
  };
  struct Fragments;

  static Bytes bytes_of(DataView& view);

  // With the lock only if the configuration says so; always with it.
  unsigned char course() const;
  unsigned char course_locked() const OX_EXCLUDES(state_mutex_);
  bool is_stopped() const { return (course() & kStopped) != 0; }
  void add_to_course(Course course) OX_EXCLUDES(state_mutex_);
  // active() with a look at the course in the same section: false, and nothing recorded, on any of
  // the exceptions.
  template <unsigned char kExceptions>
  bool active_unless() OX_EXCLUDES(state_mutex_);
  bool is_cycle_idle();
  // Milliseconds since the last activity; `last` and `now` are ticks.
  unsigned int silence(unsigned int& last, unsigned int& now) const;
  void mark_stopped();
  void mark_sent();
  void cancel_cycle();
  template <void (TarnSession::*kHandler)(const DatagramReader::Segment&)>
  void read_segments(DatagramReader& reader);
  void dispatch(const DatagramReader::Segment& seg);
  // Logs the number of a reliable segment and takes it from the front.
  unsigned short read_seq(DataView& segment) const;
  bool got_ack(Bytes body);
  bool got_una(Bytes body);
  bool got_conv(Bytes body);
  // The one place where datagrams are built: header, conv, feedback, then the two pieces.
  void emit(Bytes head, Bytes body, FeedbackRides feedback_rides, StoppedTest tested = kNotTested);
  // Everything to tell the peer that fits.
  void gather_feedback(unsigned long budget, Feedback& feedback);
  // Reserves a run of numbers and puts the first into `first`; false, and nothing done, if the
  // course is not plain.
  bool take_seqs(size_t count, unsigned short& first) OX_EXCLUDES(state_mutex_);
  // Both return what was not sent as a fragment before the last one.
  Bytes send_message(Bytes message, unsigned char flag);
  Bytes send_fragments(Bytes message, size_t max_size);
  // Emits and keeps it, in memory that is large enough. False when the course is not plain any
  // more.
  bool send_segment(const Fragment& fragment, SegmentNode&& node);
  static void write_segment(SegmentBytes& segment, const Fragment& fragment);
  void overflow();
  void log_no_mtu(Bytes message) const;
  void log_sent(const Fragment& fragment) const;
  // What input() feeds, which has made the locked test.
  void deliver_reliable(DataView message);
  void hand_over(DataView& message);
  void deliver_unreliable(DataView& message);

  // Off the short way: whether to go on there. Otherwise all is done.
  bool begin_message(Bytes message);
  bool begin_unreliable(unsigned char course);
  bool begin_in_place(unsigned char course, int len);
  bool begin_datagram(unsigned char course, size_t size);
  bool begin_resend(unsigned char course, unsigned short seq);
  bool begin_delivery(DataView& message);
  bool begin_unreliable_delivery();
  void input_controlled(char* datagram, size_t size);

  // For controlled sessions.

  SessionControl& control() {
    SessionControl* const control = control_.load(std::memory_order_acquire);
    return control != nullptr ? *control : make_control();
  }
  SessionControl& make_control();
  bool is_ended() const { return (course_ & kStopped) != 0; }
  void apply_limits(const SessionControl& control);
  int set_mtu(unsigned int mtu);
  int clear_options(SessionControl& control);
  void watch_from_now(SessionControl& control, TarnOption option);
  static void watch_if_alive(oxutils::weak_ptr<TarnSession> session, unsigned int number);
  void watch(unsigned int number);
  void arm_watch(SessionControl& control, uint32_t delay);
  static void settle_if_alive(oxutils::weak_ptr<TarnSession> session);
  void settle_later();
  void settle();
  bool settle_counts();

  // Segments of a message that have been numbered and are to go out.
  struct Run {
    unsigned short first;
    size_t count;         // numbers
    size_t kept;          // the first of these
    size_t segment_size;  // as it was then
  };
  size_t segment_size() const;
  SendRoom room(const SessionControl& control) const OX_REQUIRES(control.send_lock);
  static int refuse(SessionControl& control, const SendRoom& room, size_t size)
      OX_REQUIRES(control.send_lock);
  void send_controlled(Bytes message);
  Run put_whole(SessionControl& control, Bytes message) OX_REQUIRES(control.send_lock);
  Run put(SessionControl& control, Bytes message, const SendRoom& room)
      OX_REQUIRES(control.send_lock);
  Run put_past_limit(SessionControl& control, Bytes message, const SendRoom& room)
      OX_REQUIRES(control.send_lock);
  void forget_lapped(SessionControl& control, size_t count) OX_REQUIRES(control.send_lock);
  class Segments;
  void keep_run(SessionControl& control, Bytes message, const Run& run, Segments& segments)
      OX_REQUIRES(control.send_lock);
  unsigned int begin_run(SessionControl& control, const Run& run) OX_REQUIRES(control.send_lock);
  void keep(SessionControl& control, const Fragment& fragment, SegmentNode&& segment,
            unsigned int now) OX_REQUIRES(control.send_lock);
  void emit_run(Bytes message, const Run& run);
  void keep_past_limit(const Fragment& fragment);
  bool adopt(unsigned short seq);
  void got_acks_controlled(const DatagramReader::Segment& seg);
  void got_una_controlled(const DatagramReader::Segment& seg);
  void release(SessionControl& control, unsigned short una) OX_REQUIRES(control.send_lock);
  void settle_acknowledgements();
  static void learn(const Outstanding& outstanding, PeerWindow& peer_window);
  void drain();
  bool cut(SessionControl& control, std::vector<char>& packet);
  void tell_writable();

  void dispatch_controlled(const DatagramReader::Segment& seg);
  bool is_of_this_conversation(const char* datagram, size_t size);
  void receive(const DatagramReader::Segment& seg);
  RecvWindow::Arrival take_in(unsigned short seq, DataView& payload, unsigned char flag);
  RecvWindow::Arrival take_in_turn(unsigned short seq, DataView& payload, unsigned char flag);
  bool is_far_ahead(unsigned short seq);
  void count_delivery(size_t size);
  void deliver_pending();
  bool is_too_large(uint64_t size);

  // What an idle cycle touches comes first, on as few cache lines as possible.
  oxutils::relaxed<unsigned int> mss_;  // largest payload of a reliable segment
  mutable oxutils::mutex state_mutex_;
  oxutils::relaxed<unsigned int> last_active_{0};    // tick
  oxutils::relaxed<unsigned char> course_{kUnsent};  // of Course; written under state_mutex_
  unsigned short send_seq_ OX_GUARDED_BY(state_mutex_) = 0;  // number of the next reliable segment
  oxutils::relaxed<bool> got_bye_{false};
  oxutils::relaxed<unsigned char> least_feedback_{0};  // bytes
  oxutils::relaxed<unsigned int> conv_{0};
  RecvWindow recv_window_;
  SendWindow send_window_;
  oxutils::relaxed<int> cycle_timer_{0};  // 0: none
  const uint64_t number_;
  CallbackSlot<DataCallback> output_cb_;
  CallbackSlot<DataCallback> recv_reliable_cb_;
  CallbackSlot<DataCallback> recv_unreliable_cb_;
  CallbackSlot<ErrorCallback> error_cb_;
  oxutils::relaxed<const oxutils::relaxed<unsigned int>*> active_timeout_;  // ms
  std::atomic<SessionControl*> control_{nullptr};  // set once, under state_mutex_
};

#endif  // TARN_SRC_TARN_SESSION_H_
