// Cuts a failing sequence of operations down to a short one.
#ifndef TARN_TESTS_MODEL_MINIMISE_H_
#define TARN_TESTS_MODEL_MINIMISE_H_

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tarn_model {

// `ops` without the `size` operations from `at` on.
template <typename Op>
std::vector<Op> without(const std::vector<Op>& ops, size_t at, size_t size) {
  std::vector<Op> rest(ops.begin(), ops.begin() + static_cast<std::ptrdiff_t>(at));
  const size_t end = std::min(ops.size(), at + size);
  rest.insert(rest.end(), ops.begin() + static_cast<std::ptrdiff_t>(end), ops.end());
  return rest;
}

// Seeks short and plain sequences of operations for which `fails` still holds. Of an operation it
// asks for
//   std::vector<Op> simpler(const Op&);                plainer forms of it
//   bool close_gap(std::vector<Op>&, uint16_t seq);    lower every number after `seq` by one; false
//                                                      where numbers cannot be told
//   const uint16_t* number_of(const Op&);              null if it has none
template <typename Op, typename Fails>
class Minimiser {
 public:
  // Time limits it only where each attempt is slow.
  Minimiser(std::vector<Op> ops, Fails fails, std::chrono::seconds limit = std::chrono::seconds(20))
      : ops_(std::move(ops)), fails_(std::move(fails)), deadline_(Clock::now() + limit) {}

  std::vector<Op> run() {
    do {
      remove_pieces();
    } while ((close_gaps() || simplify()) && !is_late());
    return ops_;
  }

 private:
  using Clock = std::chrono::steady_clock;

  bool is_late() const { return Clock::now() > deadline_; }

  bool accept(std::vector<Op>&& candidate) {
    if (is_late() || !fails_(candidate)) return false;
    ops_ = std::move(candidate);
    return true;
  }

  // Leaves out ever smaller pieces, until no single operation can be spared.
  void remove_pieces() {
    size_t piece = std::max<size_t>(1, ops_.size() / 2);
    for (bool removed = true; piece > 1 || removed; piece = std::max<size_t>(1, piece / 2)) {
      removed = false;
      // From the end: what stands there depends on most of the rest.
      for (size_t end = ops_.size(); end > 0; end -= std::min(end, piece)) {
        const size_t at = end - std::min(end, piece);
        if (accept(without(ops_, at, end - at))) removed = true;
      }
    }
  }

  // Leaves out an operation that is only there so that the next number follows it.
  bool close_gaps() {
    bool closed = false;
    for (size_t i = ops_.size(); i-- > 0;) {
      const uint16_t* seq = number_of(ops_[i]);
      if (seq == nullptr) continue;
      std::vector<Op> candidate = without(ops_, i, 1);
      if (close_gap(candidate, *seq) && accept(std::move(candidate))) closed = true;
    }
    return closed;
  }

  bool simplify() {
    bool simplified = false;
    for (size_t i = 0; i < ops_.size(); ++i) {
      for (const Op& plainer : simpler(ops_[i])) {
        std::vector<Op> candidate = ops_;
        candidate[i] = plainer;
        if (!accept(std::move(candidate))) continue;
        simplified = true;
        break;
      }
    }
    return simplified;
  }

  std::vector<Op> ops_;
  const Fails fails_;
  const Clock::time_point deadline_;
};

// `op` with one thing less to do inside it; and, if `member` has bytes, with none.
template <typename Op>
std::vector<Op> plainer_forms(const Op& op, std::string Op::*member) {
  std::vector<Op> forms;
  for (size_t i = 0; i < op.inside.size(); ++i) {
    forms.push_back(op);
    forms.back().inside = without(op.inside, i, 1);
  }
  if (!(op.*member).empty()) {
    forms.push_back(op);
    (forms.back().*member).clear();
  }
  return forms;
}

// Lowers the numbers after `seq`, up to the wrap, by one.
template <typename Op>
void lower_numbers(std::vector<Op>& ops, uint16_t seq) {
  for (Op& op : ops) {
    if (op.seq > seq) --op.seq;
    lower_numbers(op.inside, seq);
  }
}

}  // namespace tarn_model

#endif  // TARN_TESTS_MODEL_MINIMISE_H_
