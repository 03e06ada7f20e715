// Numbers that depend on the seed alone, on every platform.
#ifndef TARN_TESTS_MODEL_RANDOM_H_
#define TARN_TESTS_MODEL_RANDOM_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace tarn_model {

class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}

  // 0 to `end` - 1. Requires: `end` is not 0.
  uint64_t below(uint64_t end) { return next() % end; }
  uint64_t between(uint64_t first, uint64_t last) { return first + below(last - first + 1); }
  // True `percent` times in a hundred.
  bool chance(unsigned percent) { return below(100) < percent; }

  template <typename T, size_t N>
  T pick(const T (&choices)[N]) {
    return choices[below(N)];
  }

  // `size` bytes that differ from call to call.
  std::string bytes(size_t size) {
    std::string text(size, '\0');
    for (char& byte : text) byte = static_cast<char>(next());
    return text;
  }

 private:
  // SplitMix64: neighbouring seeds give unrelated sequences.
  uint64_t next() {
    uint64_t z = state_ += 0x9E3779B97F4A7C15;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
    return z ^ (z >> 31);
  }

  uint64_t state_;
};

}  // namespace tarn_model

#endif  // TARN_TESTS_MODEL_RANDOM_H_
