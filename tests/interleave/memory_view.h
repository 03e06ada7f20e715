// MemoryView: which writes somebody knows of.
#ifndef TARN_TESTS_INTERLEAVE_MEMORY_VIEW_H_
#define TARN_TESTS_INTERLEAVE_MEMORY_VIEW_H_

#include <algorithm>
#include <cstddef>
#include <vector>

namespace tarn_test {

// The number of the newest write known, by place. A thread has one, and so has everything that one
// thread leaves for another to take over.
class MemoryView {
 public:
  size_t at(size_t place) const { return place < newest_.size() ? newest_[place] : 0; }
  void raise(size_t place, size_t write) {
    if (place >= newest_.size()) newest_.resize(place + 1);
    newest_[place] = std::max(newest_[place], write);
  }
  void raise(const MemoryView& other) {
    for (size_t place = 0; place < other.newest_.size(); ++place) raise(place, other.at(place));
  }
  void clear() { newest_.clear(); }

 private:
  std::vector<size_t> newest_;
};

}  // namespace tarn_test

#endif  // TARN_TESTS_INTERLEAVE_MEMORY_VIEW_H_
