#include "tests/support/virtual_clock.h"

#include <sys/time.h>
#include <time.h>

#include <atomic>

namespace {

// Microseconds of the stopped clock; negative while the real time runs.
std::atomic<int64_t> stopped_at{-1};

}  // namespace

extern "C" int gettimeofday(struct timeval* tv, void*) noexcept {
  int64_t us = stopped_at.load();
  if (us < 0) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    us = now.tv_sec * int64_t{1'000'000} + now.tv_nsec / 1000;
  }
  tv->tv_sec = us / 1'000'000;
  tv->tv_usec = us % 1'000'000;
  return 0;
}

namespace tarn_test {

VirtualClock::VirtualClock(uint64_t ms) { set_ms(ms); }
VirtualClock::~VirtualClock() { stopped_at = -1; }
void VirtualClock::set_ms(uint64_t ms) { set_us(ms * 1000); }
void VirtualClock::set_us(uint64_t us) { stopped_at = static_cast<int64_t>(us); }
void VirtualClock::advance_ms(int64_t ms) { stopped_at += ms * 1000; }
uint64_t VirtualClock::now_ms() const { return static_cast<uint64_t>(stopped_at.load()) / 1000; }

}  // namespace tarn_test
