#include "tests/support/session_fixture.h"

#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <thread>

namespace tarn_test {
namespace {

// A session's deletion logs this line on the worker, while no lock is held: a callback that does
// not return keeps the worker there.
constexpr const char* kDeletionLine = "kcp not surported";
std::thread::id holding_thread;
std::atomic<bool> hold{false};
std::atomic<bool> held{false};

void hold_worker(const char* line) {
  if (!hold || std::this_thread::get_id() == holding_thread) return;
  if (std::string(line) != kDeletionLine) return;
  held = true;
  wait_until([] { return !hold; }, 60000);
}

char* chars(Bytes& bytes) { return reinterpret_cast<char*>(bytes.data()); }

}  // namespace

bool wait_until(const std::function<bool()>& done, int ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return done();
    std::this_thread::sleep_for(std::chrono::microseconds(20));
  }
  return true;
}

std::string text(const char* format, ...) {
  char buffer[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  return buffer;
}

void restore_default_settings() {
  tarn_config_mtu(1400);
  tarn_config_rtx_timeout(50);
  tarn_config_active_timeout(5000);
  tarn_config_send_window_size(32);
  tarn_config_recv_window_size(32);
  tarn_config_thread_safe(true);
}

bool wait_until_gone(void* handle) {
  // A stopped session still takes a conv, so that 0 can only mean that the handle is bad.
  tarn_set_conv(handle, 1);
  return wait_until([handle] { return tarn_get_conv(handle) == 0; });
}

namespace {

void wait_for_deletion(void* probe) {
  tarn_set_conv(probe, 1);
  tarn_destroy(probe);
  ASSERT_TRUE(wait_until([probe] { return tarn_get_conv(probe) == 0; })) << "the worker hangs";
}

}  // namespace

void settle() {
  settle_after([] {});
}

void settle_after(const std::function<void()>& change) {
  // Made before the change: a timer that is filed between the passing of a due time and the turn
  // that notices it would stand in front of the timers that this turn puts back. And the first one
  // goes before it: what tests have made so far is filed then.
  void* const probes[] = {tarn_create(), tarn_create(), tarn_create()};
  wait_for_deletion(probes[0]);
  change();
  // Deletions run before the timers of the same turn, hence the third one: it can only be carried
  // out in a turn after the second one's, whose timers have therefore run.
  wait_for_deletion(probes[1]);
  wait_for_deletion(probes[2]);
}

Endpoint::Endpoint() : handle_(tarn_create()) {
  tarn_set_output_callback(handle_, DatagramRecorder::on_data, &sent);
  tarn_set_recv_reliable_callback(handle_, DatagramRecorder::on_data, &reliable_received);
  tarn_set_recv_unreliable_callback(handle_, DatagramRecorder::on_data, &unreliable_received);
  tarn_set_error_callback(handle_, ErrorRecorder::on_error, &errors);
}

Endpoint::~Endpoint() { destroy(); }

void Endpoint::send(const Bytes& message) {
  Bytes copy = message;
  tarn_send_reliable(handle_, chars(copy), static_cast<int>(copy.size()));
}

void Endpoint::send_unreliable(const Bytes& message) {
  Bytes copy = message;
  tarn_send_unreliable(handle_, chars(copy), static_cast<int>(copy.size()));
}

void Endpoint::destroy() {
  if (handle_ == nullptr) return;
  tarn_destroy(handle_);
  EXPECT_TRUE(wait_until_gone(handle_));
  // A turn of the worker that still had the session in hand is over after this.
  settle();
  handle_ = nullptr;
}

std::vector<int> Endpoint::sent_numbers() const {
  std::vector<int> numbers;
  for (const WireSegment& one : segments_of_type(sent.all(), kReliable)) {
    numbers.push_back(one.seq());
  }
  return numbers;
}

void Endpoint::clear() {
  sent.clear();
  reliable_received.clear();
  unreliable_received.clear();
  errors.clear();
}

std::vector<LogLine> lines_about(const LogCapture& log, const void* session) {
  std::vector<LogLine> found;
  for (const LogLine& line : log.lines()) {
    if (line.text.find(pointer_text(session)) != std::string::npos) found.push_back(line);
  }
  return found;
}

WorkerHold::WorkerHold() {
  settle();
  holding_thread = std::this_thread::get_id();
  held = false;
  hold = true;
  tarn_set_log_callback(1, hold_worker);
  decoy_ = tarn_create();
  tarn_destroy(decoy_);
  EXPECT_TRUE(wait_until([] { return held.load(); }));
}

WorkerHold::~WorkerHold() { release(); }

void WorkerHold::release() {
  if (!hold) return;
  hold = false;
  EXPECT_TRUE(wait_until_gone(decoy_));
  settle();
  tarn_set_log_callback(0, nullptr);
}

// Cancelled timers leave the worker's queues only when they fall due: nobody must find them in front
// of his own.
void let_cancelled_timers_go(VirtualClock& clock) {
  settle();
  for (int pass = 0; pass < 20; ++pass) {
    clock.advance_ms(60'000);
    tarn_update();
    // The first update may have met the worker at work.
    if (pass > 0 && tarn_check_update_ms() >= 10000) break;
  }
}

uint64_t now_ms() {
  timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
}

SessionFixture::SessionFixture() : clock_(now_ms()) {
  restore_default_settings();
  tarn_init();
  let_cancelled_timers_go(clock_);
}

SessionFixture::~SessionFixture() {
  let_cancelled_timers_go(clock_);
  restore_default_settings();
}

void SessionFixture::advance(int64_t ms) {
  settle_after([this, ms] { clock_.advance_ms(ms); });
}

void SessionFixture::advance_by_steps(int64_t ms, int64_t step) {
  for (int64_t done = 0; done < ms; done += step) advance(step);
}

RealTimeFixture::RealTimeFixture() {
  restore_default_settings();
  tarn_init();
}

RealTimeFixture::~RealTimeFixture() { restore_default_settings(); }

}  // namespace tarn_test
