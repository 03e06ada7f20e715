// ExactCopy: bytes in a block of the heap that is exactly as large as they are.
#ifndef TARN_TESTS_FUZZ_SUPPORT_EXACT_COPY_H_
#define TARN_TESTS_FUZZ_SUPPORT_EXACT_COPY_H_

#include <stddef.h>
#include <string.h>

#include <memory>
#include <string>

namespace tarn_fuzz {

// What the library is lent: the address sanitizer sees the first byte read past either end, which a
// string with its terminator and its short form would hide.
class ExactCopy {
 public:
  explicit ExactCopy(const std::string& bytes) : size_(bytes.size()), bytes_(new char[size_]) {
    if (size_ > 0) memcpy(bytes_.get(), bytes.data(), size_);
  }

  char* data() { return bytes_.get(); }
  size_t size() const { return size_; }
  int length() const { return static_cast<int>(size_); }
  bool holds(const char* at, size_t count) const {
    return at >= bytes_.get() && count <= size_ && at <= bytes_.get() + (size_ - count);
  }

 private:
  const size_t size_;
  const std::unique_ptr<char[]> bytes_;
};

}  // namespace tarn_fuzz

#endif  // TARN_TESTS_FUZZ_SUPPORT_EXACT_COPY_H_
