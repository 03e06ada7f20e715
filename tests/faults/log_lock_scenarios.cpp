// A log callback takes a lock of the application's, and another thread calls the library with that
// lock held: for every line that is logged, at the very moment. A line that leaves the library
// under a lock of its own meets a call that wants this lock, and the scenario never ends.
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "tarn/io.h"
#include "tests/faults/play.h"
#include "tests/support/kept.h"
#include "tests/support/net_sockets.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

namespace tarn_test {
namespace {

constexpr int kLevel = 4;  // all but a line for every datagram
constexpr unsigned kPauseUs = 100;

// The application's lock and the thread that calls with it held. Never destroyed: the library's
// threads may be logging until the process is gone.
class LockedCaller {
 public:
  LockedCaller() {
    std::thread([this] { serve(); }).detach();
  }

  void destroy() const {
    tarn_destroy_io(io_);
    tarn_destroy(session_);
  }

  // The call after this one is the process's first on a socket.
  void begin_with_sockets() { calls_sockets_ = true; }

  // Has the other thread hold the lock and call the library, then takes the lock.
  void take_lock() {
    if (std::this_thread::get_id() == server_) return;  // it has the lock
    const unsigned long wanted = ++requests_;
    while (served_ < wanted) usleep(kPauseUs);
    const std::lock_guard<std::mutex> hold(lock_);
  }

 private:
  [[noreturn]] void serve() {
    server_ = std::this_thread::get_id();
    for (;; usleep(kPauseUs)) {
      const unsigned long requests = requests_;
      if (served_ == requests) continue;
      {
        const std::lock_guard<std::mutex> hold(lock_);
        call_the_library();
      }
      served_ = requests;
    }
  }

  // Calls that wait for no thread of the library: that thread may be the one that logs.
  void call_the_library() {
    char message[] = "message";
    tarn_init();
    tarn_set_error_callback(session_, nullptr, nullptr);
    tarn_send_unreliable(session_, message, sizeof message);
    tarn_update();
    tarn_destroy(tarn_create());
    if (!calls_sockets_) return;
    tarn_attach_io(session_, io_);
    tarn_set_writeable_callback(io_, EventCounter::on_event, &events_);
    tarn_set_io_error_callback(io_, EventCounter::on_error, &events_);
    tarn_write(io_, message, sizeof message);
    tarn_peek_size(io_);
  }

  std::mutex lock_;
  EventCounter events_;
  void* const session_ = tarn_create();
  void* const io_ = tarn_create_udp_io(kLoopback, 9, 0);
  std::atomic<bool> calls_sockets_{false};
  std::atomic<unsigned long> requests_{0};
  std::atomic<unsigned long> served_{0};
  std::atomic<std::thread::id> server_{};
};

std::atomic<LockedCaller*> caller{nullptr};

void on_line(int, const char*) { caller.load()->take_lock(); }

void use_sockets(const Play& play) {
  const PlainSocket peer = PlainSocket::udp();
  const unsigned short port = free_port();
  auto& handles = kept<NewHandles>();
  auto& events = kept<EventCounter>();
  void* const io = tarn_create_udp_io(kLoopback, peer.port(), 0);
  caller.load()->begin_with_sockets();
  tarn_set_writeable_callback(io, EventCounter::on_event, &events);
  void* const listener = tarn_start_listen_tcp(port, NewHandles::on_new, &handles);
  {
    const OwnedFd client = connect_tcp(port);
    play.reach("a writeable event", [&] { return events.count() > 0; });
    if (play.must_complete()) {
      play.reach("a new connection", [&] { return handles.count() > 0; });
    }
  }
  tarn_stop_listen(listener);
  for (void* const each : handles.all()) tarn_destroy_io(each);
  tarn_destroy_io(io);
}

void log_callback_takes_a_held_lock(const Play& play) {
  tarn_init();
  caller = &kept<LockedCaller>();
  tarn_set_log_callback2(kLevel, on_line);
  Endpoint& endpoint = kept<Endpoint>();
  endpoint.send("never acknowledged");
  use_sockets(play);
  tarn_destroy(endpoint.handle());
  tarn_set_log_callback2(0, nullptr);
  caller.load()->destroy();
}

}  // namespace

const std::vector<Scenario>& log_lock_scenarios() {
  static const std::vector<Scenario> all{
      {"LogCallbackTakesAHeldLock", log_callback_takes_a_held_lock}};
  return all;
}

}  // namespace tarn_test
