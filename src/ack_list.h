// AckList: the numbers of early segments that the peer has to be told of.
#ifndef TARN_SRC_ACK_LIST_H_
#define TARN_SRC_ACK_LIST_H_

#include <stddef.h>
#include <stdint.h>

#include <unordered_map>
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
      const auto number = numbers_.find(seq);
      if (number == numbers_.end() || !number->second.has(head_)) continue;
      out.push_back(seq);
      if (--number->second.count == 0) numbers_.erase(number);
      --size_;
      --count;
    }
    if (size_ == 0) clear();
  }

 private:
  // Which entries of a number count: those from the place `first` on. Others have been removed.
  struct Number {
    uint16_t count = 0;
    uint16_t first = 0;

    bool has(size_t place) const { return count > 0 && place >= first; }
  };

  // Leaves the entries that count.
  void compact();
  void clear();

  size_t size_ = 0;
  size_t head_ = 0;  // everything before has been taken
  std::vector<unsigned short> entries_;
  std::unordered_map<unsigned short, Number> numbers_;  // that are listed
};

#endif  // TARN_SRC_ACK_LIST_H_
