// HandleRegistry: which handles are live objects.
#ifndef TARN_SRC_HANDLE_REGISTRY_H_
#define TARN_SRC_HANDLE_REGISTRY_H_

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "oxutils/mutex.h"
#include "oxutils/smart_ptr/shared_ptr.h"

// Maps the opaque values that the application holds to the objects behind them, of which it keeps a
// reference each. Any thread. lock_ guards the map and the lists of entries; no object goes under
// it.
//
// In front of the map stands a cache that hold() reads without the lock. What it finds there may
// have been removed, or belong to another handle by now, so it counts itself in first and looks
// then. That is why entries and caches are used again, but never freed.
template <typename T>
class HandleRegistry {
 public:
  using Pointer = oxutils::shared_ptr<T>;

 private:
  struct Entry;

 public:
  // Keeps an object for the length of a call, at less than the price of a counted reference.
  class Hold {
   public:
    Hold(Hold&& other) noexcept
        : registry_(other.registry_), entry_(std::exchange(other.entry_, nullptr)) {}
    Hold& operator=(Hold&&) = delete;
    ~Hold() {
      if (entry_ != nullptr) registry_.end_use(*entry_);
    }

    explicit operator bool() const { return entry_ != nullptr; }
    T* operator->() const { return entry_->object.get(); }
    const Pointer& pointer() const { return entry_->object; }

   private:
    friend class HandleRegistry;
    Hold(HandleRegistry& registry, Entry* entry) : registry_(registry), entry_(entry) {}

    HandleRegistry& registry_;
    Entry* entry_;
  };

  HandleRegistry() { grow_cache(); }
  HandleRegistry(const HandleRegistry&) = delete;
  HandleRegistry& operator=(const HandleRegistry&) = delete;

  // False when the handle is taken.
  bool add(void* handle, const Pointer& object) OX_EXCLUDES(lock_) {
    const oxutils::scoped_lock hold(lock_);
    const auto added = entries_.emplace(handle, nullptr);
    if (!added.second) return false;
    added.first->second = &make_entry(handle, object);
    if (entries_.size() > cache_.load()->size / 2) grow_cache();
    return true;
  }

  // Empty for a handle that is not registered.
  Hold hold(void* handle) OX_EXCLUDES(lock_) {
    Cache& cache = *cache_.load(std::memory_order_acquire);
    for (size_t place = 0; place < Cache::kPlaces; ++place) {
      Entry* const cached = cache.slot(handle, place).load(std::memory_order_acquire);
      if (cached != nullptr && begin_use(*cached, handle)) return Hold(*this, cached);
    }
    return find_and_hold(handle);
  }

  // A counted reference, or nothing for a handle that is not registered.
  Pointer get(void* handle) OX_EXCLUDES(lock_) {
    const Hold found = hold(handle);
    return found ? found.pointer() : Pointer();
  }

  // A counted reference to what is registered no more, or nothing.
  Pointer remove(void* handle) OX_EXCLUDES(lock_) {
    Entry* removed = nullptr;
    {
      const oxutils::scoped_lock hold(lock_);
      const auto found = entries_.find(handle);
      if (found == entries_.end()) return Pointer();
      removed = found->second;
      entries_.erase(found);
    }
    Pointer object = removed->object;
    removed->state.fetch_or(Entry::kRemoved);
    retire_if_unused(*removed);
    return object;
  }

 private:
  // The registry's reference, and how many calls use it at the moment. A call may count itself in
  // and see only then that the entry is another handle's, or has just been removed; then it counts
  // itself out at once. Whoever brings the count of a removed entry to 0 lets its reference go.
  struct Entry {
    static constexpr uint32_t kRemoved = 1;
    static constexpr uint32_t kFree = 2;  // besides kRemoved: is in free_
    static constexpr uint32_t kUser = 4;

    std::atomic<void*> handle{nullptr};
    std::atomic<uint32_t> state{kRemoved | kFree};
    Pointer object;  // does not change while the entry is in use, or registered
  };

  struct Cache {
    explicit Cache(unsigned int bits)
        : size(size_t{1} << bits), shift(64 - bits), slots(new std::atomic<Entry*>[size]()) {}

    // Where an entry may stand, all on one cache line.
    static constexpr size_t kPlaces = 4;

    std::atomic<Entry*>& slot(const void* handle, size_t place) {
      return slots[(mix(reinterpret_cast<uintptr_t>(handle)) >> shift) ^ place];
    }

    // Spreads addresses over the high bits. In two rounds: after one, addresses at some even
    // distances would still meet in a few places.
    static uint64_t mix(uint64_t address) {
      constexpr uint64_t kGolden = 0x9E3779B97F4A7C15;
      address *= kGolden;
      return (address ^ (address >> 32)) * kGolden;
    }

    // In the first place that is free, or else instead of whoever has the first one.
    void put(const void* handle, Entry* entry) {
      size_t place = 0;
      while (place < kPlaces && !is_free(slot(handle, place))) ++place;
      slot(handle, place % kPlaces).store(entry, std::memory_order_release);
    }

    static bool is_free(const std::atomic<Entry*>& slot) {
      const Entry* const entry = slot.load(std::memory_order_acquire);
      return entry == nullptr || (entry->state.load() & Entry::kRemoved) != 0;
    }

    const size_t size;
    const unsigned int shift;
    const std::unique_ptr<std::atomic<Entry*>[]> slots;
  };

  static constexpr unsigned int kFirstCacheBits = 6;
  static constexpr size_t kFirstEntries = 16;

  // False when the entry is another handle's, or nobody's.
  bool begin_use(Entry& entry, void* handle) {
    if (entry.handle.load(std::memory_order_relaxed) != handle) return false;  // not worth a count
    const uint32_t before = entry.state.fetch_add(Entry::kUser, std::memory_order_acq_rel);
    if ((before & Entry::kRemoved) == 0 && entry.handle.load(std::memory_order_relaxed) == handle) {
      return true;
    }
    end_use(entry);
    return false;
  }

  void end_use(Entry& entry) {
    const uint32_t before = entry.state.fetch_sub(Entry::kUser, std::memory_order_acq_rel);
    if (before == (Entry::kUser | Entry::kRemoved)) retire_if_unused(entry);
  }

  // Several may come here at once for the same entry; one of them finds it so.
  void retire_if_unused(Entry& entry) OX_EXCLUDES(lock_) {
    uint32_t removed = Entry::kRemoved;
    if (!entry.state.compare_exchange_strong(removed, Entry::kRemoved | Entry::kFree)) return;
    const Pointer object = std::move(entry.object);  // goes without the lock
    const oxutils::scoped_lock hold(lock_);
    free_.push_back(&entry);
  }

  Entry& make_entry(void* handle, const Pointer& object) OX_REQUIRES(lock_) {
    if (free_.empty()) add_entries();
    Entry& entry = *free_.back();
    free_.pop_back();
    entry.handle.store(handle, std::memory_order_relaxed);
    entry.object = object;
    entry.state.fetch_and(~(Entry::kRemoved | Entry::kFree), std::memory_order_release);
    return entry;
  }

  // As many as there are: side by side, as the calls look at many of them.
  void add_entries() OX_REQUIRES(lock_) {
    const size_t count = std::max(entry_count_, kFirstEntries);
    free_.reserve(entry_count_ + count);  // a removal allocates nothing
    blocks_.push_back(std::make_unique<Entry[]>(count));
    entry_count_ += count;
    for (size_t i = count; i > 0; --i) free_.push_back(&blocks_.back()[i - 1]);
  }

  __attribute__((noinline)) Hold find_and_hold(void* handle) OX_EXCLUDES(lock_) {
    const oxutils::scoped_lock hold(lock_);
    const auto found = entries_.find(handle);
    if (found == entries_.end()) return Hold(*this, nullptr);
    found->second->state.fetch_add(Entry::kUser, std::memory_order_acq_rel);
    cache_.load()->put(handle, found->second);
    return Hold(*this, found->second);
  }

  // The caches before it stay: all together are no larger than this one.
  void grow_cache() OX_REQUIRES(lock_) {
    caches_.push_back(std::make_unique<Cache>(kFirstCacheBits + caches_.size()));
    cache_.store(caches_.back().get(), std::memory_order_release);
  }

  std::atomic<Cache*> cache_{nullptr};
  oxutils::mutex lock_;
  std::unordered_map<void*, Entry*> entries_ OX_GUARDED_BY(lock_);
  std::vector<std::unique_ptr<Entry[]>> blocks_ OX_GUARDED_BY(lock_);
  size_t entry_count_ OX_GUARDED_BY(lock_) = 0;
  std::vector<Entry*> free_ OX_GUARDED_BY(lock_);
  std::vector<std::unique_ptr<Cache>> caches_ OX_GUARDED_BY(lock_);
};

#endif  // TARN_SRC_HANDLE_REGISTRY_H_
