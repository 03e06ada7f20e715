// SendWindow: the reliable segments that the peer has not acknowledged yet.
#ifndef TARN_SRC_SEND_WINDOW_H_
#define TARN_SRC_SEND_WINDOW_H_

#include <atomic>
#include <memory>
#include <vector>

#include "oxutils/callback.h"
#include "oxutils/mutex.h"
#include "oxutils/relaxed.h"
#include "oxutils/smart_ptr/weak_ptr.h"
#include "src/packet.h"
#include "src/segment_bytes.h"

class TarnSession;

// Keeps packets in four buckets and re-sends one bucket every 30 ms, in rotation, until they are
// acknowledged: each packet first 30 to 60 ms after it was written, then every 120 ms, with no
// back-off and no limit. Part of a session; any thread may call in, the timer runs where due timers
// do. lock_ guards everything that changes and is never held while the window calls out.
class SendWindow {
 public:
  // Starts the re-send timer. Requires: the worker has been started.
  SendWindow();
  // The owner calls stop() first; the timer may be in its last run until the worker has seen that.
  ~SendWindow();
  SendWindow(const SendWindow&) = delete;
  SendWindow& operator=(const SendWindow&) = delete;

  // `f` takes (unsigned short seq, DataView packet, bool* keep) and emits the packet. What it makes
  // of `*keep` is not looked at: only an acknowledgement takes a packet out.
  void set_resend_callback(oxutils::Function f) OX_EXCLUDES(lock_);

  // The session around this window: a re-send pass keeps it alive until the pass is over, even if
  // the application destroys it meanwhile.
  void set_owner(const oxutils::weak_ptr<TarnSession>& owner) OX_EXCLUDES(lock_);

  // Room for a segment of `size` bytes, in memory that an acknowledged one has left if possible.
  SegmentBytes make_segment(size_t size) {
    return SegmentBytes(spare_memory_.exchange(nullptr), size);
  }
  // Keeps a framed segment under `seq`. False when send_window_size packets are waiting: nothing is
  // kept then.
  bool write(unsigned short seq, SegmentBytes segment) OX_EXCLUDES(lock_);
  // The same with a copy of the view's bytes; the view has bytes of its own afterwards.
  bool write(unsigned short seq, DataView& data) OX_EXCLUDES(lock_);

  // The peer has `seq`. An unknown number changes nothing.
  void ack(unsigned short seq) OX_EXCLUDES(lock_);
  // The peer has everything up to and including `una`.
  void una(unsigned short una) OX_EXCLUDES(lock_);

  // Packets kept.
  unsigned short count() const OX_EXCLUDES(lock_);

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
  static constexpr unsigned int kMaxSpares = 16;

  using Bucket = SeqMap<SegmentBytes>;

  struct Spares {
    Bucket::node_type nodes[kMaxSpares];
    unsigned int count = 0;
  };

  // One turn of the rotation, as taken at its start.
  struct Pass {
    unsigned int bucket = 0;
    std::vector<unsigned short> seqs;
    oxutils::Function emit;
    oxutils::shared_ptr<TarnSession> owner;
  };

  bool is_full() const OX_REQUIRES(lock_);
  void keep(unsigned short seq, SegmentBytes&& segment) OX_REQUIRES(lock_);
  void drop(Bucket& bucket, Bucket::iterator packet) OX_REQUIRES(lock_);
  void drop_spares() OX_REQUIRES(lock_);
  bool begin_pass(Pass& pass) OX_EXCLUDES(lock_);
  void resend_packet(const Pass& pass, unsigned short seq) OX_EXCLUDES(lock_);
  bool find_packet(unsigned int bucket, unsigned short seq, DataView& packet) const
      OX_EXCLUDES(lock_);
  void log_resend(const Pass& pass, unsigned short seq) OX_EXCLUDES(lock_);

  // What an idle turn of the timer touches comes first, on as few cache lines as possible.
  mutable oxutils::mutex lock_;
  unsigned int current OX_GUARDED_BY(lock_) = 0;  // bucket that receives new packets
  unsigned int count_ OX_GUARDED_BY(lock_) = 0;
  // Nodes and bytes of packets that have been acknowledged, for the next ones. They go when nothing
  // is sent any more.
  std::unique_ptr<Spares> spares_ OX_GUARDED_BY(lock_);
  oxutils::Function resend_callback_ OX_GUARDED_BY(lock_);
  oxutils::relaxed<int> timer_id_{0};
  unsigned int resend_logs_ OX_GUARDED_BY(lock_) = 0;  // thins out the log
  oxutils::weak_ptr<TarnSession> owner_ OX_GUARDED_BY(lock_);
  Bucket buckets[kBucketCount] OX_GUARDED_BY(lock_);
  std::atomic<char*> spare_memory_{nullptr};  // of a segment; written and taken without lock_
};

#endif  // TARN_SRC_SEND_WINDOW_H_
