// SendRoom: what may be sent or kept for sending now.
#ifndef TARN_SRC_FLOW_SEND_ROOM_H_
#define TARN_SRC_FLOW_SEND_ROOM_H_

#include <stddef.h>
#include <stdint.h>

#include <algorithm>

// The limits of a session and what it holds; a plain value.
struct SendRoom {
  // Numbers at most beyond the oldest outstanding one: a quarter of the ring, so that the numbers
  // of both ends never lie half a ring apart.
  static constexpr uint32_t kMostAhead = 16383;

  size_t segment_size;   // bytes of payload at most; 0: nothing can be sent
  uint32_t window;       // segments that may be outstanding
  uint32_t ahead;        // numbers that may lie beyond the oldest outstanding one
  uint64_t queue;        // bytes that may wait
  uint32_t outstanding;  // segments
  uint32_t span;         // numbers from the oldest outstanding one to the next
  uint64_t queued;       // bytes
  bool is_queue_empty;

  bool has_queue() const { return queue > 0 || !is_queue_empty; }
  // Segments that can be outstanding at a time.
  uint32_t most_segments() const { return std::min(window, ahead + 1); }
  size_t segments_of(size_t message) const {
    return message <= segment_size ? 1 : (message + segment_size - 1) / segment_size;
  }
  // New segments that may go out now.
  uint32_t free_segments() const {
    const uint32_t in_window = window > outstanding ? window - outstanding : 0;
    return std::min(in_window, ahead + 1 > span ? ahead + 1 - span : 0);
  }
  // Whether a message of `size` bytes, more than 0, may go out now in one segment.
  bool has_room_at_once(size_t size) const {
    return is_queue_empty && size <= segment_size && free_segments() > 0;
  }
  // The longest message that is ever taken.
  uint64_t most_bytes() const {
    return segment_size == 0 ? 0 : uint64_t{window} * segment_size + queue;
  }
  // The longest message that is taken now. What has to wait for others waits behind them; whoever
  // is alone may have more waiting than the queue takes, or it would wait for ever.
  uint64_t bytes() const {
    if (segment_size == 0) return 0;
    if (is_queue_empty && outstanding == 0) return most_bytes();
    return is_queue_empty ? free_bytes() : free_queue();
  }
  bool is_half_free() const {
    return 2 * free_bytes() >= uint64_t{most_segments()} * segment_size + queue;
  }

 private:
  uint64_t free_queue() const { return queue > queued ? queue - queued : 0; }
  uint64_t free_bytes() const { return uint64_t{free_segments()} * segment_size + free_queue(); }
};

#endif  // TARN_SRC_FLOW_SEND_ROOM_H_
