// What the simulator tells the sanitizers. Nothing where there is none. ThreadSanitizer does not
// look at these files, so the build has to say that it is there (TARN_SIM_TSAN).
#ifndef TARN_TESTS_SIM_SANITIZERS_H_
#define TARN_TESTS_SIM_SANITIZERS_H_

#if defined(__SANITIZE_ADDRESS__)
#define TARN_SIM_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TARN_SIM_ASAN 1
#endif
#endif

#ifdef TARN_SIM_ASAN
#include <sanitizer/common_interface_defs.h>
#endif

#ifdef TARN_SIM_TSAN
#include <sanitizer/tsan_interface.h>
extern "C" {
void AnnotateIgnoreReadsBegin(const char* file, int line);
void AnnotateIgnoreReadsEnd(const char* file, int line);
void AnnotateIgnoreWritesBegin(const char* file, int line);
void AnnotateIgnoreWritesEnd(const char* file, int line);
}
#endif

namespace tarn_sim {

// The simulator's own state is shared by all fibers without a lock, since only one of them runs:
// ThreadSanitizer is not to look at it.
inline void ignore_accesses() {
#ifdef TARN_SIM_TSAN
  AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
  AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
#endif
}

inline void watch_accesses() {
#ifdef TARN_SIM_TSAN
  AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
  AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
#endif
}

// What happened before hand_over() on one task happened before take_over() on another.
inline void hand_over([[maybe_unused]] void* what) {
#ifdef TARN_SIM_TSAN
  __tsan_release(what);
#endif
}

inline void take_over([[maybe_unused]] void* what) {
#ifdef TARN_SIM_TSAN
  __tsan_acquire(what);
#endif
}

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_SANITIZERS_H_
