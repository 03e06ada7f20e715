#include "src/ack_list.h"

namespace {

// What an empty list keeps room for until the next loss.
constexpr size_t kKeptEntries = 256;

}  // namespace

void AckList::add(unsigned short seq) {
  if (size_ == kMaxSize) return;
  Number& number = numbers_[seq];
  if (entries_.size() > 2 * size_ + 1) compact();  // so places stay below 65536
  entries_.push_back(seq);
  if (number.count == 0) number.first = static_cast<uint16_t>(entries_.size() - 1);
  ++number.count;
  ++size_;
}

void AckList::remove(unsigned short seq) {
  const auto number = numbers_.find(seq);
  if (number == numbers_.end()) return;
  size_ -= number->second.count;
  numbers_.erase(number);
  if (size_ == 0) clear();
}

void AckList::compact() {
  size_t end = 0;
  for (size_t place = head_; place < entries_.size(); ++place) {
    const unsigned short seq = entries_[place];
    const auto number = numbers_.find(seq);
    if (number == numbers_.end() || !number->second.has(place)) continue;
    number->second.first = 0;  // whatever comes after it counts as well
    entries_[end++] = seq;
  }
  entries_.resize(end);
  head_ = 0;
}

void AckList::clear() {
  head_ = 0;
  entries_.clear();
  numbers_.clear();
  if (entries_.capacity() <= kKeptEntries) return;
  std::vector<unsigned short>().swap(entries_);
  std::unordered_map<unsigned short, Number>().swap(numbers_);
}
