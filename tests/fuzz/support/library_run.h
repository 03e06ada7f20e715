// LibraryRun: the library as one run of a target finds it and has to leave it.
#ifndef TARN_TESTS_FUZZ_SUPPORT_LIBRARY_RUN_H_
#define TARN_TESTS_FUZZ_SUPPORT_LIBRARY_RUN_H_

#include <stdint.h>

#include "tests/fuzz/support/stepped_worker.h"
#include "tests/support/virtual_clock.h"

namespace tarn_fuzz {

// Default settings, no log, a stopped clock and a worker that is stepped; whatever a run changes is
// undone when it ends, so that no run depends on the one before.
class LibraryRun {
 public:
  explicit LibraryRun(uint64_t first_ms);
  ~LibraryRun();
  LibraryRun(const LibraryRun&) = delete;
  LibraryRun& operator=(const LibraryRun&) = delete;

  uint64_t now_ms() const { return clock_.now_ms(); }
  uint32_t tick() const { return static_cast<uint32_t>(now_ms()); }
  void advance(int64_t ms) { clock_.advance_ms(ms); }
  void turn() { worker_.turn(); }

  // Lines of at most this level are formatted and looked at.
  void log_at(int level);

 private:
  tarn_test::VirtualClock clock_;
  SteppedWorker worker_;
};

// Whether the library knows a session by this handle.
bool is_registered(void* handle);

}  // namespace tarn_fuzz

#endif  // TARN_TESTS_FUZZ_SUPPORT_LIBRARY_RUN_H_
