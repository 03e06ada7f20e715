// DatagramQueue: datagrams under way from one end to another, in memory.
#ifndef TARN_BENCH_DATAGRAM_QUEUE_H_
#define TARN_BENCH_DATAGRAM_QUEUE_H_

#include <stddef.h>

#include <vector>

namespace bench {

// First in, first out; copies what it is given into memory that it uses again, so that it allocates
// nothing once it has been as full as it gets. One thread.
class DatagramQueue {
 public:
  bool empty() const { return first_ == end_; }
  size_t size() const { return end_ - first_; }

  // A datagram of `size` bytes, to be written.
  char* push(size_t size) {
    if (end_ == slots_.size()) slots_.emplace_back();
    std::vector<char>& slot = slots_[end_++];
    slot.resize(size);
    return slot.data();
  }

  // The oldest one; valid until the next push. Requires: not empty.
  std::vector<char>& pop() {
    std::vector<char>& oldest = slots_[first_++];
    if (empty()) first_ = end_ = 0;
    return oldest;
  }

  // The newest one; valid until the next push. Requires: not empty.
  std::vector<char>& pop_newest() { return slots_[--end_]; }

 private:
  std::vector<std::vector<char>> slots_;
  size_t first_ = 0;
  size_t end_ = 0;
};

}  // namespace bench

#endif  // TARN_BENCH_DATAGRAM_QUEUE_H_
