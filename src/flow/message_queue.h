// MessageQueue: messages that wait for room in the send window.
#ifndef TARN_SRC_FLOW_MESSAGE_QUEUE_H_
#define TARN_SRC_FLOW_MESSAGE_QUEUE_H_

#include <stddef.h>

#include <array>
#include <list>

// First in, first out. Messages come whole, or as what is left of one that has begun, and go in
// pieces that do not reach beyond a message. Takes the memory of what it holds, a byte or a few
// more for each message, and up to two chunks.
class MessageQueue {
 public:
  // What has been taken, and its place in its message.
  struct Piece {
    size_t size;
    bool begins;
    bool ends;
  };

  MessageQueue() = default;
  MessageQueue(const MessageQueue&) = delete;
  MessageQueue& operator=(const MessageQueue&) = delete;

  // Keeps a copy. `begins`: nothing of the message has been sent. Changes nothing if it throws.
  void push(const char* data, size_t size, bool begins = true);

  bool empty() const { return messages_ == 0; }
  size_t messages() const { return messages_; }
  // Of the messages alone.
  size_t bytes() const { return bytes_; }

  // Bytes of the next piece if it may have `max`. Requires: not empty.
  size_t next_size(size_t max) const { return front_.size < max ? front_.size : max; }
  // Copies the next piece, next_size(max) bytes, to `to`. Requires: not empty; max > 0, but
  // for an empty message.
  Piece take(char* to, size_t max);

 private:
  static constexpr size_t kChunkSize = 4096;  // bytes
  using Chunk = std::array<char, kChunkSize>;
  // What stands in front of each message, as it is: most messages are longer by far.
  struct Head {
    size_t size;
    bool begins;
  };
  static constexpr size_t kMostHeadSize = 10;

  static size_t encode(const Head& head, char* to);
  void write(const char* data, size_t size);
  void read(char* to, size_t size);
  void read_head();

  std::list<Chunk> chunks_;
  std::list<Chunk>::iterator last_ = chunks_.end();  // the one that is written to
  size_t write_at_ = kChunkSize;                     // in that one
  size_t read_at_ = 0;                               // in the first one
  size_t messages_ = 0;
  size_t bytes_ = 0;
  Head front_{0, false};  // what is left of the oldest message
};

#endif  // TARN_SRC_FLOW_MESSAGE_QUEUE_H_
