// SendWindow: the reliable segments that the peer has not acknowledged yet.
#ifndef TARN_SRC_SEND_WINDOW_H_
#define TARN_SRC_SEND_WINDOW_H_

#include <stddef.h>

#include <vector>

#include "oxutils/callback.h"
#include "oxutils/mutex.h"
#include "oxutils/relaxed.h"
#include "oxutils/smart_ptr/shared_ptr.h"
#include "src/data_view.h"
#include "src/segment_pool.h"
#include "src/tarn_config.h"

// Keeps packets in four buckets and re-sends one bucket every 30 ms, in rotation, until they are
// acknowledged: each packet first 30 to 60 ms after it was written, then every 120 ms, with no
// back-off and no limit. Part of a session; any thread may call in, the timer runs where due timers
// do. lock_ guards everything that changes and is never held while the window calls out.
class SendWindow {
 public:
  // What the window is a part of.
  struct Owner {
    virtual ~Owner() = default;
    // Keeps the owner alive; empty if it is not owned by references.
    virtual oxutils::shared_ptr<Owner> hold() = 0;
  };

  // Starts the re-send timer. Requires: the worker has been started.
  SendWindow();
  // The owner calls stop() first; the timer may be in its last run until the worker has seen that.
  ~SendWindow() = default;
  SendWindow(const SendWindow&) = delete;
  SendWindow& operator=(const SendWindow&) = delete;

  // `f` takes (unsigned short seq, DataView packet, bool* keep) and emits the packet. What it makes
  // of `*keep` is not looked at: only an acknowledgement takes a packet out. A re-send pass holds
  // the owner, if there is one, until it is over, even if the application destroys it meanwhile.
  void set_resend_callback(oxutils::Function f, Owner* owner = nullptr) OX_EXCLUDES(lock_);

  // Where segments to write() come from.
  SegmentPool& pool() { return pool_; }
  // Keeps a framed segment under `seq`, without allocating. False when limit() packets are waiting:
  // it is not kept then.
  bool write(unsigned short seq, SegmentNode&& segment) OX_EXCLUDES(lock_);
  // The same with a copy of the view's bytes; the view has bytes of its own afterwards.
  bool write(unsigned short seq, DataView& data) OX_EXCLUDES(lock_);

  // The peer has `seq`. An unknown number changes nothing.
  void ack(unsigned short seq) OX_EXCLUDES(lock_);
  // The peer has everything up to and including `una`.
  void una(unsigned short una) OX_EXCLUDES(lock_);

  // More is to come when these are gone: stop() waits for that, too.
  void set_more(bool more) { has_more_ = more; }
  // Packets kept.
  unsigned short count() const OX_EXCLUDES(lock_);

  // For senders that look for room themselves.

  // write() without a look at the limit.
  void keep(unsigned short seq, SegmentNode&& segment) OX_EXCLUDES(lock_);
  bool keeps(unsigned short seq) const OX_EXCLUDES(lock_);
  // The numbers of the packets kept, in no order; their bytes behind the segment heads.
  std::vector<unsigned short> numbers() const OX_EXCLUDES(lock_);
  size_t payload_bytes() const OX_EXCLUDES(lock_);
  // The packets to keep at most, from now on; outlives the window.
  unsigned int limit() const { return *limit_.load(); }
  void set_limit(const oxutils::relaxed<unsigned int>* limit) { limit_ = limit; }

  // Cancels the timer.
  void stop();
  // Waits on the calling thread, in steps of at most 100 ms, until the window is empty or `wait_ms`
  // milliseconds are over; then cancels the timer. Not on the worker, whose re-sends would stall.
  void stop(unsigned int wait_ms);

  // The timer's function: re-sends the bucket whose turn it is.
  void resend() OX_EXCLUDES(lock_);

 private:
  static constexpr unsigned int kBucketCount = 4;
  static constexpr int kResendPeriodMs = 30;

  using Bucket = SegmentMap;

  // One turn of the rotation, as taken at its start.
  struct Pass {
    unsigned int bucket = 0;
    std::vector<unsigned short> seqs;
    oxutils::Function emit;
    oxutils::shared_ptr<Owner> owner;
  };

  bool is_full() const OX_REQUIRES(lock_);
  void insert(unsigned short seq, SegmentNode&& segment) OX_REQUIRES(lock_);
  void drop(Bucket& bucket, Bucket::iterator packet) OX_REQUIRES(lock_);
  bool begin_pass(Pass& pass) OX_EXCLUDES(lock_);
  void resend_packet(const Pass& pass, unsigned short seq) OX_EXCLUDES(lock_);
  bool find_packet(unsigned int bucket, unsigned short seq, DataView& packet) const
      OX_EXCLUDES(lock_);
  void log_resend(const Pass& pass, unsigned short seq) OX_EXCLUDES(lock_);

  // What an idle turn of the timer touches comes first, on as few cache lines as possible.
  mutable oxutils::mutex lock_;
  unsigned int current OX_GUARDED_BY(lock_) = 0;  // bucket that receives new packets
  unsigned int count_ OX_GUARDED_BY(lock_) = 0;
  oxutils::Function resend_callback_ OX_GUARDED_BY(lock_);
  oxutils::relaxed<int> timer_id_{0};
  unsigned int resend_logs_ OX_GUARDED_BY(lock_) = 0;  // thins out the log
  Owner* owner_ OX_GUARDED_BY(lock_) = nullptr;
  Bucket buckets[kBucketCount] OX_GUARDED_BY(lock_);
  oxutils::relaxed<const oxutils::relaxed<unsigned int>*> limit_{
      &TarnConfig::instance()->send_window_size};
  oxutils::relaxed<bool> has_more_{false};
  SegmentPool pool_;  // cleared when nothing is sent any more
};

#endif  // TARN_SRC_SEND_WINDOW_H_
