// SessionCounters: what a session has done.
#ifndef TARN_SRC_SESSION_COUNTERS_H_
#define TARN_SRC_SESSION_COUNTERS_H_

#include <stddef.h>
#include <stdint.h>

#include <atomic>

#include "tarn/control.h"

// Counts events on any thread without a lock.
class EventCounter {
 public:
  void add(uint64_t count = 1) { count_.fetch_add(count, std::memory_order_relaxed); }
  operator uint64_t() const { return count_.load(std::memory_order_relaxed); }  // NOLINT

 private:
  std::atomic<uint64_t> count_{0};
};

// Events and their bytes.
struct TrafficCounter {
  EventCounter count;
  EventCounter bytes;

  void add(size_t size) {
    count.add();
    bytes.add(size);
  }
};

// Named as in TarnStats.
struct SessionCounters {
  TrafficCounter messages_sent;
  TrafficCounter messages_delivered;
  EventCounter messages_refused;
  EventCounter unreliable_sent;
  EventCounter unreliable_delivered;
  EventCounter segments_sent;
  EventCounter segments_resent;
  EventCounter segments_received;
  EventCounter segments_repeated;
  EventCounter segments_rejected;
  TrafficCounter datagrams_sent;
  TrafficCounter datagrams_received;

  void report(TarnStats& stats) const {
    stats.messages_sent = messages_sent.count;
    stats.message_bytes_sent = messages_sent.bytes;
    stats.messages_delivered = messages_delivered.count;
    stats.message_bytes_delivered = messages_delivered.bytes;
    stats.messages_refused = messages_refused;
    stats.unreliable_sent = unreliable_sent;
    stats.unreliable_delivered = unreliable_delivered;
    stats.segments_sent = segments_sent;
    stats.segments_resent = segments_resent;
    stats.segments_received = segments_received;
    stats.segments_repeated = segments_repeated;
    stats.segments_rejected = segments_rejected;
    stats.datagrams_sent = datagrams_sent.count;
    stats.datagram_bytes_sent = datagrams_sent.bytes;
    stats.datagrams_received = datagrams_received.count;
    stats.datagram_bytes_received = datagrams_received.bytes;
  }
};

#endif  // TARN_SRC_SESSION_COUNTERS_H_
