// HandleCache: where calls find the objects behind handles without a lock.
#ifndef TARN_SRC_HANDLE_CACHE_H_
#define TARN_SRC_HANDLE_CACHE_H_

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <memory>
#include <utility>
#include <vector>

#include "oxutils/smart_ptr/shared_ptr.h"

// What a reader finds here may have been removed, or belong to another handle by now, so it counts
// itself in first and looks then. That is why entries and tables are used again, but never freed.
//
// Part of a HandleRegistry, whose lock is held for put() and make_room(). `Atomic` is for tests,
// which watch the order of what threads do.
template <typename T, template <typename> class Atomic = std::atomic>
class HandleCache {
 public:
  using Pointer = oxutils::shared_ptr<T>;

  // The registry's reference, and how many calls use it at the moment. Any thread. A call may count
  // itself in and see only then that the entry is another handle's, or has just been removed; then
  // it counts itself out at once. Whoever brings the count of a removed entry to 0 retires it.
  class Entry {
   public:
    // Whether it is worth a count.
    bool is_for(const void* handle) const {
      return handle_.load(std::memory_order_relaxed) == handle;
    }
    // Counts the caller in, for good or bad: false when the entry is another handle's, or nobody's.
    bool begin_use(const void* handle) {
      const uint32_t before = state_.fetch_add(kUser, std::memory_order_acq_rel);
      return (before & kRemoved) == 0 && is_for(handle);
    }
    // True when the caller has to retire the entry.
    bool end_use() {
      const uint32_t before = state_.fetch_sub(kUser, std::memory_order_acq_rel);
      return before == (kUser | kRemoved) && try_free();
    }
    // Requires: in use, or registered.
    const Pointer& object() const { return object_; }

    // The registry alone: a free entry becomes a handle's, and a handle's is used no more, which is
    // true when the caller has to retire it.
    void assign(void* handle, const Pointer& object) {
      handle_.store(handle, std::memory_order_relaxed);
      object_ = object;
      state_.fetch_and(~(kRemoved | kFree), std::memory_order_release);
    }
    bool remove() {
      state_.fetch_or(kRemoved, std::memory_order_acq_rel);
      return try_free();
    }
    // The reference, from whoever retires the entry.
    Pointer release() { return std::move(object_); }
    bool is_removed() const { return (state_.load(std::memory_order_relaxed) & kRemoved) != 0; }

   private:
    static constexpr uint32_t kRemoved = 1;
    static constexpr uint32_t kFree = 2;  // besides kRemoved
    static constexpr uint32_t kUser = 4;

    // Several may come here at once; one of them finds it so.
    bool try_free() {
      uint32_t removed = kRemoved;
      return state_.compare_exchange_strong(removed, kRemoved | kFree, std::memory_order_acq_rel);
    }

    Atomic<void*> handle_{nullptr};
    Atomic<uint32_t> state_{kRemoved | kFree};
    Pointer object_;
  };

  // Where an entry may stand, all on one cache line.
  static constexpr size_t kPlaces = 4;
  class Places {
   public:
    Atomic<Entry*>& operator[](size_t place) const { return slots_[first_ ^ place]; }

   private:
    friend class HandleCache;
    Places(Atomic<Entry*>* slots, size_t first) : slots_(slots), first_(first) {}

    Atomic<Entry*>* const slots_;
    const size_t first_;
  };

  HandleCache() { grow(); }
  HandleCache(const HandleCache&) = delete;
  HandleCache& operator=(const HandleCache&) = delete;

  // Any thread, without the lock. Nothing, or entries of any handle.
  Places places(const void* handle) const {
    return current_.load(std::memory_order_acquire)->places(handle);
  }

  // In the first place that is free, or else instead of whoever has the first one.
  void put(const void* handle, Entry& entry) {
    const Places places = tables_.back()->places(handle);
    size_t place = 0;
    while (place < kPlaces && !is_free(places[place])) ++place;
    places[place % kPlaces].store(&entry, std::memory_order_release);
  }

  // Twice as many places as `handles`, at least.
  void make_room(size_t handles) {
    if (handles > tables_.back()->size / 2) grow();
  }

 private:
  struct Table {
    explicit Table(unsigned int bits)
        : size(size_t{1} << bits), shift(64 - bits), slots(new Atomic<Entry*>[size]()) {}

    Places places(const void* handle) const {
      return Places(slots.get(), mix(reinterpret_cast<uintptr_t>(handle)) >> shift);
    }

    const size_t size;
    const unsigned int shift;
    const std::unique_ptr<Atomic<Entry*>[]> slots;
  };

  static constexpr unsigned int kFirstBits = 6;

  // Spreads addresses over the high bits. In two rounds: after one, addresses at some even
  // distances would still meet in a few places.
  static uint64_t mix(uint64_t address) {
    constexpr uint64_t kGolden = 0x9E3779B97F4A7C15;
    address *= kGolden;
    return (address ^ (address >> 32)) * kGolden;
  }

  static bool is_free(const Atomic<Entry*>& slot) {
    const Entry* const entry = slot.load(std::memory_order_relaxed);
    return entry == nullptr || entry->is_removed();
  }

  // The tables before it stay: all together are no larger than this one.
  void grow() {
    const auto bits = kFirstBits + static_cast<unsigned int>(tables_.size());
    tables_.push_back(std::make_unique<Table>(bits));
    current_.store(tables_.back().get(), std::memory_order_release);
  }

  Atomic<const Table*> current_{nullptr};
  std::vector<std::unique_ptr<Table>> tables_;
};

#endif  // TARN_SRC_HANDLE_CACHE_H_
