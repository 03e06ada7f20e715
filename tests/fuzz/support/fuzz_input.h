// FuzzInput: takes values from the bytes that a fuzzing driver invents.
#ifndef TARN_TESTS_FUZZ_SUPPORT_FUZZ_INPUT_H_
#define TARN_TESTS_FUZZ_SUPPORT_FUZZ_INPUT_H_

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <string>

namespace tarn_fuzz {

// Reads from front to back, so that changing a byte of an input changes what follows as little as
// possible; past the end everything is zero. Integers are big-endian.
class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : at_(data), left_(size) {}

  bool empty() const { return left_ == 0; }

  uint8_t u8() {
    if (left_ == 0) return 0;
    --left_;
    return *at_++;
  }
  uint16_t u16() {
    const unsigned high = u8();
    return static_cast<uint16_t>(high << 8 | u8());
  }
  uint32_t u32() {
    const uint32_t high = u16();
    return high << 16 | u16();
  }

  // 0 to limit - 1, from one byte or from two. Requires: limit is not 0.
  size_t below(size_t limit) { return limit <= 256 ? u8() % limit : u16() % limit; }
  bool flag() { return (u8() & 1) != 0; }

  // Exactly `size` bytes, or as many as there are.
  std::string bytes(size_t size) {
    const size_t count = std::min(size, left_);
    std::string taken;
    if (count > 0) taken.assign(reinterpret_cast<const char*>(at_), count);
    at_ += count;
    left_ -= count;
    return taken;
  }
  std::string rest() { return bytes(left_); }

 private:
  const uint8_t* at_;
  size_t left_;
};

}  // namespace tarn_fuzz

#endif  // TARN_TESTS_FUZZ_SUPPORT_FUZZ_INPUT_H_
