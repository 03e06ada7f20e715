// Loading memory ahead of its use.
#ifndef TARN_OXUTILS_PREFETCH_H_
#define TARN_OXUTILS_PREFETCH_H_

#include <stddef.h>

namespace oxutils {

// Begins to load `size` bytes into the cache, to be written, and waits for nothing. The memory
// belongs to an object, or lies close to one.
inline void prefetch(const void* memory, size_t size) {
  constexpr size_t kCacheLine = 64;
  const char* const bytes = static_cast<const char*>(memory);
  for (size_t at = 0; at < size; at += kCacheLine) __builtin_prefetch(bytes + at, 1);
  __builtin_prefetch(bytes + size - 1, 1);  // they may begin in the middle of a line
  // An effect that the compiler has to respect: it would take a function that does nothing but this
  // for one without effect, and drop the calls.
  __asm__ volatile("");
}

}  // namespace oxutils

#endif  // TARN_OXUTILS_PREFETCH_H_
