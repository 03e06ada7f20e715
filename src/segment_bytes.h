// SegmentBytes: one framed segment, on its own.
#ifndef TARN_SRC_SEGMENT_BYTES_H_
#define TARN_SRC_SEGMENT_BYTES_H_

#include <stddef.h>

#include <memory>
#include <utility>

// `size()` bytes, not initialised, in memory that may serve one segment after another. Moves, but
// is not shared.
class SegmentBytes {
 public:
  SegmentBytes() = default;
  explicit SegmentBytes(size_t size) { resize(size); }
  SegmentBytes(SegmentBytes&& other) noexcept { swap(other); }
  SegmentBytes& operator=(SegmentBytes&& other) noexcept {
    SegmentBytes(std::move(other)).swap(*this);
    return *this;
  }
  ~SegmentBytes() = default;

  void swap(SegmentBytes& other) noexcept {
    memory_.swap(other.memory_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
  }

  // Null if there never were any.
  char* data() { return memory_.get(); }
  const char* data() const { return memory_.get(); }
  size_t size() const { return size_; }

  // Loses the bytes. The memory serves again if `size` bytes fit and fill half of it at least; else
  // it goes, and there is new memory.
  void resize(size_t size) {
    if (size > capacity_ || size < capacity_ / 2) {
      memory_.reset(new char[size]);
      capacity_ = size;
    }
    size_ = size;
  }
  // Drops bytes at the end. Requires: size <= size().
  void truncate(size_t size) { size_ = size; }

 private:
  std::unique_ptr<char[]> memory_;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

#endif  // TARN_SRC_SEGMENT_BYTES_H_
