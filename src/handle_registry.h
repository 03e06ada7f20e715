// HandleRegistry: which handles are live objects.
#ifndef TARN_SRC_HANDLE_REGISTRY_H_
#define TARN_SRC_HANDLE_REGISTRY_H_

#include <stddef.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "oxutils/mutex.h"
#include "oxutils/smart_ptr/shared_ptr.h"
#include "src/handle_cache.h"

// Maps the opaque values that the application holds to the objects behind them, of which it keeps a
// reference each. Any thread. lock_ guards the map, the lists of entries and what changes the cache
// in front of them; hold() reads that without. No object goes under the lock.
template <typename T, template <typename> class Atomic = std::atomic>
class HandleRegistry {
  using Cache = HandleCache<T, Atomic>;
  using Entry = typename Cache::Entry;

 public:
  using Pointer = oxutils::shared_ptr<T>;

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
    T* operator->() const { return entry_->object().get(); }
    const Pointer& pointer() const { return entry_->object(); }

   private:
    friend class HandleRegistry;
    Hold(HandleRegistry& registry, Entry* entry) : registry_(registry), entry_(entry) {}

    HandleRegistry& registry_;
    Entry* entry_;
  };

  HandleRegistry() = default;
  HandleRegistry(const HandleRegistry&) = delete;
  HandleRegistry& operator=(const HandleRegistry&) = delete;

  // False when the handle is taken.
  bool add(void* handle, const Pointer& object) OX_EXCLUDES(lock_) {
    const oxutils::scoped_lock hold(lock_);
    // Whatever finds no memory does so before anything has changed.
    if (free_.empty()) add_entries();
    cache_.make_room(entries_.size() + 1);
    if (!entries_.emplace(handle, free_.back()).second) return false;
    free_.back()->assign(handle, object);
    free_.pop_back();
    return true;
  }

  // Empty for a handle that is not registered.
  Hold hold(void* handle) OX_EXCLUDES(lock_) {
    const auto places = cache_.places(handle);
    for (size_t place = 0; place < Cache::kPlaces; ++place) {
      Entry* const cached = places[place].load(std::memory_order_acquire);
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
    Pointer object = removed->object();
    if (removed->remove()) retire(*removed);
    return object;
  }

 private:
  static constexpr size_t kFirstEntries = 16;

  bool begin_use(Entry& entry, void* handle) {
    if (!entry.is_for(handle)) return false;
    if (entry.begin_use(handle)) return true;
    end_use(entry);
    return false;
  }

  void end_use(Entry& entry) {
    if (entry.end_use()) retire(entry);
  }

  void retire(Entry& entry) OX_EXCLUDES(lock_) {
    const Pointer object = entry.release();  // goes without the lock
    const oxutils::scoped_lock hold(lock_);
    free_.push_back(&entry);
  }

  // As many as there are: side by side, as the calls look at many of them.
  void add_entries() OX_REQUIRES(lock_) {
    const size_t count = std::max(entry_count_, kFirstEntries);
    free_.reserve(entry_count_ + count);  // a removal allocates nothing
    blocks_.push_back(std::make_unique<Entry[]>(count));
    entry_count_ += count;
    for (size_t i = count; i > 0; --i) free_.push_back(&blocks_.back()[i - 1]);
  }

  // The entry is in the map, so nobody has removed it.
  __attribute__((noinline)) Hold find_and_hold(void* handle) OX_EXCLUDES(lock_) {
    const oxutils::scoped_lock hold(lock_);
    const auto found = entries_.find(handle);
    if (found == entries_.end()) return Hold(*this, nullptr);
    found->second->begin_use(handle);
    cache_.put(handle, *found->second);
    return Hold(*this, found->second);
  }

  Cache cache_;
  oxutils::mutex lock_;
  std::unordered_map<void*, Entry*> entries_ OX_GUARDED_BY(lock_);
  std::vector<std::unique_ptr<Entry[]>> blocks_ OX_GUARDED_BY(lock_);
  size_t entry_count_ OX_GUARDED_BY(lock_) = 0;
  std::vector<Entry*> free_ OX_GUARDED_BY(lock_);
};

#endif  // TARN_SRC_HANDLE_REGISTRY_H_
