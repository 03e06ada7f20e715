#include "tests/io_events/virtual_second.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>

#include "tarn_io/tarn_poller.h"

namespace {

constexpr int64_t kNsPerMs = 1'000'000;
constexpr int64_t kNsPerSecond = 1000 * kNsPerMs;
// A loop that spins makes no progress in virtual time.
constexpr int kSpinning = 100'000;

bool is_virtual = false;
int64_t now_ns = 1000 * kNsPerSecond;

// The time that the system was not asked to wait for.
void pass_time(int ready, int timeout) {
  if (ready == 0 && timeout > 0) now_ns += timeout * kNsPerMs;
}

}  // namespace

// These three stand in front of the system's.
extern "C" int poll(pollfd* fds, nfds_t count, int timeout) {
  const int64_t ns = is_virtual ? 0 : timeout * kNsPerMs;
  const timespec wait = {static_cast<time_t>(ns / kNsPerSecond),
                         static_cast<long>(ns % kNsPerSecond)};
  const bool is_endless = !is_virtual && timeout < 0;
  const auto ready = static_cast<int>(
      syscall(SYS_ppoll, fds, count, is_endless ? nullptr : &wait, nullptr, size_t{0}));
  if (is_virtual) pass_time(ready, timeout);
  return ready;
}

extern "C" int epoll_wait(int set, epoll_event* events, int most, int timeout) {
  const auto ready = static_cast<int>(
      syscall(SYS_epoll_pwait, set, events, most, is_virtual ? 0 : timeout, nullptr, size_t{0}));
  if (is_virtual) pass_time(ready, timeout);
  return ready;
}

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
  if (!is_virtual) return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  *time = {static_cast<time_t>(now_ns / kNsPerSecond), static_cast<long>(now_ns % kNsPerSecond)};
  return 0;
}

namespace tarn_test {

int poll_for_a_virtual_second() {
  is_virtual = true;
  const int64_t end = now_ns + kNsPerSecond;
  int passes = 0;
  while (now_ns < end && passes < kSpinning) {
    const auto left = static_cast<unsigned int>((end - now_ns) / kNsPerMs);
    ++passes;
    if (!TarnPoller::instance()->poll(left)) break;
  }
  is_virtual = false;
  return passes;
}

void poll_once() {
  is_virtual = true;
  TarnPoller::instance()->poll(0);
  is_virtual = false;
}

}  // namespace tarn_test
