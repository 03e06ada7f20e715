#include "src/ack_list.h"

namespace {

// What an empty list keeps for the next loss.
constexpr size_t kKeptPages = 4;
constexpr size_t kKeptEntries = 256;
constexpr size_t kPages = 256;

}  // namespace

AckList::Number& AckList::make_number(unsigned short seq) {
  if (pages_.empty()) pages_.resize(kPages);
  std::unique_ptr<Page>& page = pages_[seq / kPageSize];
  if (!page) {
    page = std::make_unique<Page>();
    ++page_count_;
  }
  return number_of(seq);
}

void AckList::add(unsigned short seq) {
  if (size_ == kMaxSize) return;
  Number& number = make_number(seq);
  if (entries_.size() > 2 * size_ + 1) compact();  // so places stay below 65536
  entries_.push_back(seq);
  if (number.count == 0) number.first = static_cast<uint16_t>(entries_.size() - 1);
  ++number.count;
  ++size_;
}

void AckList::remove(unsigned short seq) {
  if (pages_.empty() || !pages_[seq / kPageSize]) return;
  Number& number = number_of(seq);
  size_ -= number.count;
  number.count = 0;
  if (size_ == 0) clear();
}

void AckList::compact() {
  size_t end = 0;
  for (size_t place = head_; place < entries_.size(); ++place) {
    const unsigned short seq = entries_[place];
    Number& number = number_of(seq);
    if (!number.has(place)) continue;
    number.first = 0;  // whatever comes after it counts as well
    entries_[end++] = seq;
  }
  entries_.resize(end);
  head_ = 0;
}

// All counts are 0.
void AckList::clear() {
  head_ = 0;
  entries_.clear();
  if (entries_.capacity() > kKeptEntries) std::vector<unsigned short>().swap(entries_);
  if (page_count_ <= kKeptPages) return;
  pages_.clear();
  page_count_ = 0;
}
