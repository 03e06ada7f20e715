// ModelAtomic: stands in for std::atomic inside an Explorer's run.
#ifndef TARN_TESTS_INTERLEAVE_MODEL_ATOMIC_H_
#define TARN_TESTS_INTERLEAVE_MODEL_ATOMIC_H_

#include <atomic>
#include <utility>
#include <vector>

#include "tests/interleave/explorer.h"

namespace tarn_test {

// Every operation is a step. A load sees any write that the thread has no reason to know to be
// outdated: it knows of its own ones, and of what it has acquired. So an order that is too weak
// shows. Writes take their places in the order of the steps, and what changes a value or fails to
// sees the newest; there are no fences. Data that is not atomic is always the newest: a race on it
// is for ThreadSanitizer to see.
template <typename T>
class ModelAtomic {
 public:
  ModelAtomic(T value = T()) : first_(value) {}  // NOLINT(google-explicit-constructor)
  ModelAtomic(const ModelAtomic&) = delete;
  ModelAtomic& operator=(const ModelAtomic&) = delete;

  T load(std::memory_order order = std::memory_order_seq_cst) const {
    Explorer* const explorer = begin("load");
    if (explorer == nullptr) return newest();
    size_t oldest = explorer->view().at(place_);
    if (order == std::memory_order_seq_cst) oldest = std::max(oldest, last_sequential_);
    const size_t seen = later_.size() - explorer->choose(later_.size() - oldest + 1, true);
    see(*explorer, seen, order);
    return seen == 0 ? first_ : later_[seen - 1].value;
  }

  void store(T value, std::memory_order order = std::memory_order_seq_cst) {
    Explorer* const explorer = begin("store");
    if (explorer == nullptr) {
      newest() = value;
    } else {
      write(*explorer, value, order, MemoryView());
    }
  }

  template <typename Change>
  T update(const char* what, Change change, std::memory_order order) {
    Explorer* const explorer = begin(what);
    const T before = newest();
    if (explorer == nullptr) {
      newest() = change(before);
      return before;
    }
    see(*explorer, later_.size(), order);
    // What was released with the write before goes on with this one.
    write(*explorer, change(before), order, later_.empty() ? MemoryView() : later_.back().view);
    return before;
  }

  T exchange(T value, std::memory_order order = std::memory_order_seq_cst) {
    return update(
        "exchange", [value](T) { return value; }, order);
  }
  T fetch_add(T by, std::memory_order order = std::memory_order_seq_cst) {
    return update(
        "add", [by](T before) { return before + by; }, order);
  }
  T fetch_sub(T by, std::memory_order order = std::memory_order_seq_cst) {
    return update(
        "subtract", [by](T before) { return before - by; }, order);
  }
  T fetch_or(T bits, std::memory_order order = std::memory_order_seq_cst) {
    return update(
        "or", [bits](T before) { return before | bits; }, order);
  }
  T fetch_and(T bits, std::memory_order order = std::memory_order_seq_cst) {
    return update(
        "and", [bits](T before) { return before & bits; }, order);
  }

  bool compare_exchange_strong(T& expected, T value,
                               std::memory_order order = std::memory_order_seq_cst) {
    Explorer* const explorer = begin("compare");
    const bool same = newest() == expected;
    expected = newest();
    if (explorer == nullptr) {
      if (same) newest() = value;
      return same;
    }
    see(*explorer, later_.size(), order);
    if (same) write(*explorer, value, order, later_.empty() ? MemoryView() : later_.back().view);
    return same;
  }
  bool compare_exchange_weak(T& expected, T value,
                             std::memory_order order = std::memory_order_seq_cst) {
    return compare_exchange_strong(expected, value, order);
  }

 private:
  struct Write {
    T value;
    MemoryView view;  // what whoever acquires this value knows from then on
  };

  static bool acquires(std::memory_order order) {
    return order != std::memory_order_relaxed && order != std::memory_order_release;
  }
  static bool releases(std::memory_order order) {
    return order == std::memory_order_release || order == std::memory_order_acq_rel ||
           order == std::memory_order_seq_cst;
  }

  Explorer* begin(const char* what) const {
    Explorer* const explorer = Explorer::running();
    if (explorer == nullptr) return nullptr;
    if (place_ == kNone) place_ = explorer->new_place();
    explorer->step(what, this);
    return explorer;
  }

  T& newest() { return later_.empty() ? first_ : later_.back().value; }
  const T& newest() const { return later_.empty() ? first_ : later_.back().value; }

  void see(Explorer& explorer, size_t write, std::memory_order order) const {
    explorer.view().raise(place_, write);
    if (write > 0 && acquires(order)) explorer.view().raise(later_[write - 1].view);
  }

  void write(Explorer& explorer, T value, std::memory_order order, MemoryView handed_on) {
    const size_t number = later_.size() + 1;
    explorer.changed();
    explorer.view().raise(place_, number);
    if (releases(order)) handed_on.raise(explorer.view());
    handed_on.raise(place_, number);
    later_.push_back({value, std::move(handed_on)});
    if (order == std::memory_order_seq_cst) last_sequential_ = number;
  }

  static constexpr size_t kNone = ~size_t{0};

  T first_;  // from before the run
  std::vector<Write> later_;
  size_t last_sequential_ = 0;
  mutable size_t place_ = kNone;
};

// The same without any order, to see that a piece needs the orders that it asks for.
template <typename T>
class UnorderedAtomic : public ModelAtomic<T> {
 public:
  using Base = ModelAtomic<T>;
  using Base::Base;

  static constexpr auto kNone = std::memory_order_relaxed;

  T load(std::memory_order = kNone) const { return Base::load(kNone); }
  void store(T value, std::memory_order = kNone) { Base::store(value, kNone); }
  bool compare_exchange_strong(T& expected, T value, std::memory_order = kNone) {
    return Base::compare_exchange_strong(expected, value, kNone);
  }
  bool compare_exchange_weak(T& expected, T value, std::memory_order = kNone) {
    return Base::compare_exchange_weak(expected, value, kNone);
  }
  T exchange(T value, std::memory_order = kNone) { return Base::exchange(value, kNone); }
  T fetch_add(T by, std::memory_order = kNone) { return Base::fetch_add(by, kNone); }
  T fetch_sub(T by, std::memory_order = kNone) { return Base::fetch_sub(by, kNone); }
  T fetch_or(T bits, std::memory_order = kNone) { return Base::fetch_or(bits, kNone); }
  T fetch_and(T bits, std::memory_order = kNone) { return Base::fetch_and(bits, kNone); }
};

}  // namespace tarn_test

#endif  // TARN_TESTS_INTERLEAVE_MODEL_ATOMIC_H_
