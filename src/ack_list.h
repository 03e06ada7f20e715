// AckList: the numbers of early segments that the peer has to be told of.
#ifndef TARN_SRC_ACK_LIST_H_
#define TARN_SRC_ACK_LIST_H_

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <memory>
#include <vector>

#include "src/wire_format.h"

// In order of arrival; a number that comes again is listed again. Numbers that are removed take no
// room. Every operation takes constant time, but for what it returns, averaged over those before
// it. Not synchronised.
class AckList {
 public:
  // What one ack segment can name at the most.
  static constexpr size_t kMaxSize = wire::kMaxAcks;

  AckList() = default;
  AckList(const AckList&) = delete;
  AckList& operator=(const AckList&) = delete;

  bool empty() const { return size_ == 0; }
  // Numbers listed, each as often as it is.
  size_t size() const { return size_; }

  // Lists `seq`, unless the list is full.
  void add(unsigned short seq);
  // Takes `seq` off the list, as often as it is there.
  void remove(unsigned short seq);
  // Moves the oldest `count` numbers to the end of `out`. Requires: count <= size().
  template <typename List>
  void take(size_t count, List& out) {
    for (; count > 0; ++head_) {
      const unsigned short seq = entries_[head_];
      Number& number = number_of(seq);
      if (!number.has(head_)) continue;
      out.push_back(seq);
      --number.count;
      --size_;
      --count;
    }
    if (size_ == 0) clear();
  }

 private:
  // The entries of a number that count. Others have been removed.
  struct Number {
    uint16_t count = 0;
    uint16_t first = 0;  // those from this place on; of no meaning without any

    bool has(size_t place) const { return count > 0 && place >= first; }
  };
  static constexpr size_t kPageSize = 256;
  using Page = std::array<Number, kPageSize>;

  // Requires: `seq` has been listed before, so that its page is there.
  Number& number_of(unsigned short seq) { return (*pages_[seq / kPageSize])[seq % kPageSize]; }
  Number& make_number(unsigned short seq);
  // Leaves the entries that count.
  void compact();
  void clear();

  size_t size_ = 0;
  size_t head_ = 0;  // everything before has been taken
  std::vector<unsigned short> entries_;
  std::vector<std::unique_ptr<Page>> pages_;  // by the high byte; none before the first number
  size_t page_count_ = 0;
};

#endif  // TARN_SRC_ACK_LIST_H_
