// What no change of code could take away: the engine's own copies and locks, and nothing else.
#include <benchmark/benchmark.h>

#include <string.h>

#include <algorithm>
#include <array>
#include <vector>

#include "bench/message_bench.h"
#include "oxutils/mutex.h"
#include "tarn/tarn.h"

namespace bench {
namespace {

constexpr size_t kMtu = 1400;  // payload of a segment
constexpr size_t kCacheLine = 64;

// Pairs of lock and unlock, 3 and 4 for each segment, and 2 more for a message of several:
// - once a message: the sender's state (its number), the sender's receive window (what to
//   acknowledge), the receiver's send window (the una that came along);
// - once a segment: the receiver's state (activity), the receiver's receive window (advance), the
//   sender's send window (keep), the sender's state (activity);
// - once a message that is put together: the two counts of who refers to it, when it goes.
// Copies of the payload: into the segment that is kept, into the datagram, and if there are several
// segments, into the message that is put together. Aligned, so that none waits until the one before
// it has left the store buffer.
class Floor {
 public:
  // Starts the worker: locks are cheaper in a process of one thread.
  Floor() { tarn_init(); }

  void exchange(const std::vector<char>& message) {
    send(ends_[0], ends_[1], message);
    send(ends_[1], ends_[0], message);
  }

  bool has_delivered(long messages, size_t size) const {
    return received_.is(messages, size) && intact_ && locked_;
  }

 private:
  struct End {
    alignas(kCacheLine) std::array<char, kMtu> segment;
    oxutils::mutex state;
    oxutils::mutex send_window;
    oxutils::mutex recv_window;
    oxutils::mutex message_counts;
    std::vector<char> message;
  };

  void send(End& from, End& to, const std::vector<char>& message) {
    pass(from.state);
    to.message.resize(message.size());
    size_t at = 0;
    do {
      const size_t size = std::min(kMtu, message.size() - at);
      send_segment(from, to, message, at, size);
      at += size;
    } while (at < message.size());
    if (message.size() > kMtu) {
      for (int count = 0; count < 2; ++count) pass(to.message_counts);
    }
    received_.add(at);
  }

  void send_segment(End& from, End& to, const std::vector<char>& message, size_t at, size_t size) {
    const bool is_last = at + size == message.size();
    alignas(kCacheLine) std::array<char, kMtu> datagram;
    memcpy(from.segment.data(), message.data() + at, size);
    benchmark::DoNotOptimize(from.segment.data());
    // A full segment leaves no room for acknowledgements.
    if (is_last) pass(from.recv_window);
    memcpy(datagram.data(), from.segment.data(), size);
    benchmark::DoNotOptimize(datagram.data());
    intact_ = intact_ && datagram[size - 1] == message[at + size - 1];
    pass(to.state);
    if (is_last) pass(to.send_window);
    pass(to.recv_window);
    if (message.size() > kMtu) {
      memcpy(to.message.data() + at, datagram.data(), size);
      benchmark::DoNotOptimize(to.message.data());
    }
    pass(from.send_window);
    pass(from.state);
  }

  void pass(oxutils::mutex& lock) {
    const oxutils::scoped_lock hold(lock);
    locked_ = locked_ && hold.owns_lock();
  }

  std::array<End, 2> ends_;
  Received received_;
  bool intact_ = true;
  bool locked_ = true;
};
BENCHMARK_TEMPLATE(Message, Floor)->Apply(three_sizes);

}  // namespace
}  // namespace bench
