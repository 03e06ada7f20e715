#include "tests/support/virtual_clock.h"

#include <sys/time.h>
#include <time.h>

#include <atomic>

namespace {

constexpr int64_t kUsPerSecond = 1'000'000;
// From here the times that tests set the clock to, up to the wrap of the 32-bit tick and for a while
// behind it, lie ahead in the order of ticks.
constexpr int64_t kBeginUs = 3'000'000 * kUsPerSecond;

// Microseconds of the stopped clock; negative while it runs.
std::atomic<int64_t> stopped_at{-1};
// How far the real time is ahead of the running clock; 0 until somebody has looked.
std::atomic<int64_t> ahead{0};

int64_t real_us() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * kUsPerSecond + now.tv_nsec / 1000;
}

int64_t running_us() {
  const int64_t real = real_us();
  int64_t first = 0;
  ahead.compare_exchange_strong(first, real - kBeginUs);
  return real - ahead;
}

}  // namespace

extern "C" int gettimeofday(struct timeval* tv, void*) noexcept {
  const int64_t stopped = stopped_at;
  const int64_t us = stopped < 0 ? running_us() : stopped;
  tv->tv_sec = us / kUsPerSecond;
  tv->tv_usec = us % kUsPerSecond;
  return 0;
}

namespace tarn_test {

VirtualClock::VirtualClock(uint64_t ms) { set_ms(ms); }
VirtualClock::~VirtualClock() {
  ahead = real_us() - stopped_at;
  stopped_at = -1;
}
void VirtualClock::set_ms(uint64_t ms) { set_us(ms * 1000); }
void VirtualClock::set_us(uint64_t us) { stopped_at = static_cast<int64_t>(us); }
void VirtualClock::advance_ms(int64_t ms) { stopped_at += ms * 1000; }
uint64_t VirtualClock::now_ms() const { return static_cast<uint64_t>(stopped_at.load()) / 1000; }

}  // namespace tarn_test
