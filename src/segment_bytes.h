// SegmentBytes: one framed segment, on its own.
#ifndef TARN_SRC_SEGMENT_BYTES_H_
#define TARN_SRC_SEGMENT_BYTES_H_

#include <stddef.h>
#include <string.h>

#include <utility>

// `size()` bytes, not initialised, in one allocation that may serve one segment after another.
// Moves, but is not shared.
class SegmentBytes {
 public:
  SegmentBytes() = default;
  // Takes `memory`, which release() has given or which is null, into its ownership: it serves if
  // `size` bytes fit and fill half of it at least; else it goes, and there is new memory.
  SegmentBytes(char* memory, size_t size) : memory_(memory), size_(size) {
    const size_t room = capacity();
    if (size <= room && size >= room / 2) return;
    delete[] memory;
    memory_ = new char[kCapacitySize + size];
    memcpy(memory_, &size, kCapacitySize);
  }
  SegmentBytes(SegmentBytes&& other) noexcept { swap(other); }
  SegmentBytes& operator=(SegmentBytes&& other) noexcept {
    SegmentBytes(std::move(other)).swap(*this);
    return *this;
  }
  ~SegmentBytes() { delete[] memory_; }

  void swap(SegmentBytes& other) noexcept {
    std::swap(memory_, other.memory_);
    std::swap(size_, other.size_);
  }

  char* data() { return memory_ + kCapacitySize; }
  const char* data() const { return memory_ + kCapacitySize; }
  size_t size() const { return size_; }

  // The memory, for another segment; the caller owns it, as an array of char. Null if there is
  // none.
  char* release() {
    size_ = 0;
    return std::exchange(memory_, nullptr);
  }

 private:
  // The capacity stands in front of the bytes.
  static constexpr size_t kCapacitySize = sizeof(size_t);

  size_t capacity() const {
    size_t capacity = 0;
    if (memory_ != nullptr) memcpy(&capacity, memory_, kCapacitySize);
    return capacity;
  }

  char* memory_ = nullptr;
  size_t size_ = 0;
};

#endif  // TARN_SRC_SEGMENT_BYTES_H_
