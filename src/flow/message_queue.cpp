#include "src/flow/message_queue.h"

#include <string.h>

#include <algorithm>
#include <iterator>

namespace {

// A head: whether the message begins and the lowest 6 bits of its size, then 7 bits in each byte;
// the highest bit of a byte says that another one follows.
constexpr unsigned kMore = 0x80;
constexpr unsigned kBegins = 0x40;
constexpr unsigned kFirstBits = 6;
constexpr unsigned kBits = 7;

constexpr unsigned low_bits(size_t value, unsigned count) {
  return static_cast<unsigned>(value & ((1U << count) - 1));
}

}  // namespace

size_t MessageQueue::encode(const Head& head, char* to) {
  unsigned byte = low_bits(head.size, kFirstBits) | (head.begins ? kBegins : 0);
  size_t count = 0;
  for (size_t rest = head.size >> kFirstBits; rest > 0; rest >>= kBits) {
    to[count++] = static_cast<char>(byte | kMore);
    byte = low_bits(rest, kBits);
  }
  to[count++] = static_cast<char>(byte);
  return count;
}

void MessageQueue::push(const char* data, size_t size, bool begins) {
  char head[kMostHeadSize];
  const size_t head_size = encode(Head{size, begins}, head);
  std::list<Chunk> more;
  for (size_t room = kChunkSize - write_at_; room < head_size + size; room += kChunkSize) {
    more.emplace_back();
  }
  chunks_.splice(chunks_.end(), more);
  write(head, head_size);
  write(data, size);
  bytes_ += size;
  if (++messages_ == 1) read_head();
}

// The chunks are there.
void MessageQueue::write(const char* data, size_t size) {
  while (size > 0) {
    if (write_at_ == kChunkSize) {
      last_ = last_ == chunks_.end() ? chunks_.begin() : std::next(last_);
      write_at_ = 0;
    }
    const size_t count = std::min(size, kChunkSize - write_at_);
    memcpy(last_->data() + write_at_, data, count);
    write_at_ += count;
    data += count;
    size -= count;
  }
}

MessageQueue::Piece MessageQueue::take(char* to, size_t max) {
  const size_t size = next_size(max);
  read(to, size);
  bytes_ -= size;
  front_.size -= size;
  const Piece piece{size, front_.begins, front_.size == 0};
  front_.begins = false;
  if (piece.ends && --messages_ > 0) read_head();
  return piece;
}

void MessageQueue::read(char* to, size_t size) {
  while (size > 0) {
    const size_t count = std::min(size, kChunkSize - read_at_);
    memcpy(to, chunks_.front().data() + read_at_, count);
    read_at_ += count;
    to += count;
    size -= count;
    if (read_at_ < kChunkSize) continue;
    // The one that is written to is full, too, if it is this one.
    if (last_ == chunks_.begin()) last_ = chunks_.end();
    chunks_.pop_front();
    read_at_ = 0;
  }
}

void MessageQueue::read_head() {
  char byte = 0;
  read(&byte, 1);
  front_.begins = (static_cast<unsigned>(byte) & kBegins) != 0;
  front_.size = low_bits(static_cast<unsigned char>(byte), kFirstBits);
  for (unsigned shift = kFirstBits; (static_cast<unsigned>(byte) & kMore) != 0; shift += kBits) {
    read(&byte, 1);
    front_.size |= static_cast<size_t>(low_bits(static_cast<unsigned char>(byte), kBits)) << shift;
  }
}
