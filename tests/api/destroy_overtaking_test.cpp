// A session that is destroyed on the worker before the worker has filed its timers.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>

#include "tarn/tarn.h"
#include "tests/support/log_capture.h"

namespace {

using tarn_test::LogCapture;

constexpr auto kDeadline = std::chrono::seconds(10);

bool wait_until(const std::atomic<bool>& flag) {
  const auto end = std::chrono::steady_clock::now() + kDeadline;
  while (!flag && std::chrono::steady_clock::now() < end) std::this_thread::yield();
  return flag;
}

struct Handover {
  std::atomic<bool> on_worker{false};
  std::atomic<void*> victim{nullptr};
  std::atomic<bool> done{false};
};

// Holds the worker until another thread has made a session, then destroys that session before the
// worker can file what the creation handed over.
int destroy_newcomer(TarnError, void* user) {
  auto* const handover = static_cast<Handover*>(user);
  if (handover->done) return 0;
  handover->on_worker = true;
  while (handover->victim == nullptr) std::this_thread::yield();
  tarn_destroy(handover->victim);
  handover->done = true;
  return 0;
}

TEST(DestroyOvertaking, TimersOfADestroyedSessionAreNotFiledAfterIt) {
  tarn_config_active_timeout(10);
  tarn_init();
  LogCapture log(3);
  Handover handover;
  void* const host = tarn_create();
  tarn_set_error_callback(host, destroy_newcomer, &handover);
  ASSERT_TRUE(wait_until(handover.on_worker));

  void* const newcomer = tarn_create();
  handover.victim = newcomer;
  ASSERT_TRUE(wait_until(handover.done));
  tarn_destroy(host);
  ASSERT_TRUE(log.wait_for(tarn_test::pointer_text(host) + " del"));

  // The worker goes on serving others: it has not tripped over the timers of the freed session.
  void* const next = tarn_create();
  std::atomic<bool> alive{false};
  tarn_set_error_callback(
      next,
      [](TarnError, void* flag) {
        *static_cast<std::atomic<bool>*>(flag) = true;
        return 0;
      },
      &alive);
  EXPECT_TRUE(wait_until(alive));
  tarn_destroy(next);
  EXPECT_TRUE(log.wait_for(tarn_test::pointer_text(next) + " del"));
}

std::mutex application_lock;

int lock_and_destroy(TarnError, void* victim) {
  const std::lock_guard<std::mutex> lock(application_lock);
  tarn_destroy(victim);
  return 0;
}

int lock_and_count(TarnError, void* count) {
  const std::lock_guard<std::mutex> lock(application_lock);
  ++*static_cast<std::atomic<int>*>(count);
  return 0;
}

// A lock of the application's own, held in callbacks, must not meet the library's locks in two
// orders: ThreadSanitizer would report it.
TEST(DestroyOvertaking, ApplicationLockIsOrderedBeforeNoTimersLock) {
  tarn_config_active_timeout(10);
  tarn_init();
  LogCapture log(3);
  std::atomic<int> count{0};
  void* const counting = tarn_create();
  tarn_set_error_callback(counting, lock_and_count, &count);
  const auto end = std::chrono::steady_clock::now() + kDeadline;
  while (count == 0 && std::chrono::steady_clock::now() < end) std::this_thread::yield();

  void* const destroying = tarn_create();
  tarn_set_error_callback(destroying, lock_and_destroy, counting);
  EXPECT_TRUE(log.wait_for(tarn_test::pointer_text(counting) + " del"));
  EXPECT_GT(count, 0);
  tarn_destroy(destroying);
  EXPECT_TRUE(log.wait_for(tarn_test::pointer_text(destroying) + " del"));
}

// Destroys a session from the first log line that names it as started.
void destroy_when_started(int, const char* text) {
  void* session = nullptr;
  if (sscanf(text, "tarn session start %p", &session) == 1) tarn_destroy(session);
}

TEST(DestroyOvertaking, SessionDestroyedFromTheLogOfItsStartLeavesNoTimer) {
  tarn_config_rtx_timeout(1);
  tarn_init();
  tarn_set_log_callback2(3, destroy_when_started);
  for (int i = 0; i < 100; ++i) tarn_create();
  tarn_set_log_callback2(0, nullptr);

  LogCapture log(3);
  void* const last = tarn_create();
  tarn_destroy(last);
  EXPECT_TRUE(log.wait_for(tarn_test::pointer_text(last) + " del"));
  // A few periods of timers that must not be there.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(log.count_containing("active check FAIL"), 0);
}

}  // namespace
