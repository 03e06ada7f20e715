// Descriptors have run out when the I/O thread is to begin: its wake-up cannot be had, which is
// logged, and tried again and again.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "tarn/io.h"
#include "tests/faults/children.h"
#include "tests/faults/epilogue.h"
#include "tests/faults/waiting.h"
#include "tests/support/kept.h"
#include "tests/support/plain_socket.h"

using namespace tarn_test;

namespace {

constexpr unsigned kSeconds = 30;
constexpr int kMs = 10000;

// A process whose I/O thread does not run yet is needed, and one that may hang.
void expect_child_passes(void (*body)()) {
  const auto results = run_children(
      1, [body](size_t) { body(); }, kSeconds);
  EXPECT_FALSE(results[0].hung());
  EXPECT_TRUE(results[0].passed()) << results[0].output;
}

// An application's lock that its log callback takes.
struct Application {
  std::mutex lock;
  std::atomic<bool> is_logging{false};
  std::atomic<bool> is_served{false};
  std::thread::id thrower;
};
Application& application() {
  static Application& only = *new Application;
  return only;
}

// Something to watch: without that, and without a wake-up, the I/O thread would end at once.
class Watched {
 public:
  ~Watched() { tarn_stop_listen(listener_); }

 private:
  void* const listener_ = tarn_start_listen_tcp(free_port(), NewHandles::on_new, nullptr);
};

void log_under_lock(int, const char*) {
  application().is_logging = true;
  const std::lock_guard<std::mutex> hold(application().lock);
}

// Holds up the first thread that logs, and no other.
void log_until_served(int, const char*) {
  if (application().is_logging.exchange(true)) return;
  EXPECT_TRUE(wait_for_condition([] { return application().is_served.load(); }, kMs));
}

void log_and_throw(int, const char*) {
  if (std::this_thread::get_id() == application().thrower) throw std::runtime_error("of a line");
}

// Two handles, and a thread whose call on one of them is the first that needs the I/O thread.
struct FirstCall {
  // Until it logs that it cannot be had.
  void begin(TarnLogCallback2 log) {
    tarn_set_log_callback2(1, log);
    thread = std::thread([this] { watch(ios[0]); });
    EXPECT_TRUE(wait_for_condition([] { return application().is_logging.load(); }, kMs));
  }
  void end() {
    thread.join();
    tarn_set_log_callback2(0, nullptr);
  }
  void watch(void* io) { tarn_set_writeable_callback(io, EventCounter::on_event, &events); }

  const Watched watched;
  EventCounter& events = kept<EventCounter>();
  void* const ios[2] = {tarn_create_udp_io(kLoopback, 9, 0), tarn_create_udp_io(kLoopback, 9, 0)};
  std::thread thread;
};

void call_with_the_lock_held() {
  tarn_init();
  FirstCall call;
  {
    const DescriptorShortage shortage;
    const std::lock_guard<std::mutex> hold(application().lock);
    call.begin(log_under_lock);
    call.watch(call.ios[1]);
  }
  call.end();
  EXPECT_TRUE(wait_for_condition([&] { return call.events.count() == 2; }, kMs));
  for (void* const io : call.ios) tarn_destroy_io(io);
  expect_sockets_work();
}

void wait_for_the_io_thread() {
  tarn_init();
  FirstCall call;
  {
    const DescriptorShortage shortage;
    call.begin(log_until_served);
    tarn_destroy_io(call.ios[1]);
    application().is_served = true;
  }
  call.end();
  EXPECT_TRUE(wait_for_condition([&] { return call.events.count() >= 1; }, kMs));
  tarn_destroy_io(call.ios[0]);
  expect_sockets_work();
}

// The thread that throws is the one that would have created the I/O thread.
void leave_the_first_call() {
  tarn_init();
  auto& events = kept<EventCounter>();
  void* const io = tarn_create_udp_io(kLoopback, 9, 0);
  application().thrower = std::this_thread::get_id();
  {
    const DescriptorShortage shortage;
    tarn_set_log_callback2(1, log_and_throw);
    EXPECT_THROW(tarn_set_writeable_callback(io, EventCounter::on_event, &events),
                 std::runtime_error);
    tarn_set_log_callback2(0, nullptr);
  }
  tarn_set_writeable_callback(io, EventCounter::on_event, &events);
  EXPECT_TRUE(wait_for_condition([&] { return events.count() >= 1; }, kMs));
  tarn_destroy_io(io);
  expect_sockets_work();
}

// A connection that cannot be accepted is told again and again, with a handle that has no socket.
void destroy_dead_handles() {
  using Clock = std::chrono::steady_clock;
  tarn_init();
  const int before = open_descriptors();
  NewHandles handles;
  const unsigned short port = free_port();
  void* const listener = tarn_start_listen_tcp(port, NewHandles::on_new, &handles);
  PlainSocket peer = PlainSocket::tcp_connect(port);
  size_t destroyed = 0;
  {
    const DescriptorShortage shortage;
    io_thread_pass();
    const auto end = Clock::now() + std::chrono::seconds(3);
    while (Clock::now() < end) {
      for (; destroyed < handles.count() && Clock::now() < end; ++destroyed) {
        tarn_destroy_io(handles.at(destroyed));
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_GE(destroyed, 5u) << "of what the listener hands over";
    EXPECT_LE(handles.count(), destroyed + 2);
  }
  tarn_stop_listen(listener);
  peer.close();
  for (void* const each : handles.all()) tarn_destroy_io(each);
  expect_sockets_work();
  expect_no_descriptors_left(before, 0);
}

}  // namespace

TEST(FirstSocketCall, LogCallbackMayWantALockWhoseHolderCallsASocket) {
  expect_child_passes(call_with_the_lock_held);
}

TEST(FirstSocketCall, WaitIsServedWhileItsLogCallbackBlocks) {
  expect_child_passes(wait_for_the_io_thread);
}

TEST(FirstSocketCall, ExceptionOfALogCallbackLeavesTheLibraryWhole) {
  expect_child_passes(leave_the_first_call);
}

TEST(FirstSocketCall, HandlesAreDestroyedFasterThanDeadOnesCome) {
  expect_child_passes(destroy_dead_handles);
}
