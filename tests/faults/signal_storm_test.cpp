// Signals hit every thread of the process all the time, with and without the system's restarting
// of calls. The library's own threads block them.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "tarn/io.h"
#include "tests/faults/waiting.h"
#include "tests/support/kept.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

constexpr size_t kLeastMessages = 200;
constexpr unsigned long kLeastSignals = 200;

std::atomic<unsigned long> caught{0};
std::atomic<unsigned long> caught_by_library{0};

void on_signal(int) {
  char name[16] = {};
  prctl(PR_GET_NAME, name);
  ++(strncmp(name, "tarn_thread", sizeof name) == 0 || strncmp(name, "tarn_io", sizeof name) == 0
         ? caught_by_library
         : caught);
}

// Sends SIGUSR1 to each thread but its own, round after round.
class SignalStorm {
 public:
  explicit SignalStorm(int flags) {
    struct sigaction action = {};
    action.sa_handler = on_signal;
    action.sa_flags = flags;
    sigaction(SIGUSR1, &action, nullptr);
    caught = 0;
    thread_ = std::thread([this] {
      while (!done_) {
        hit_all();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    });
  }
  ~SignalStorm() {
    done_ = true;
    thread_.join();
  }
  SignalStorm(const SignalStorm&) = delete;
  SignalStorm& operator=(const SignalStorm&) = delete;

 private:
  static void hit_all() {
    const long self = syscall(SYS_gettid);
    DIR* const tasks = opendir("/proc/self/task");
    if (tasks == nullptr) return;
    while (const dirent* const entry = readdir(tasks)) {
      const long task = atol(entry->d_name);
      if (task > 0 && task != self) syscall(SYS_tgkill, getpid(), task, SIGUSR1);
    }
    closedir(tasks);
  }

  std::atomic<bool> done_{false};
  std::thread thread_;
};

class Signals : public SocketFixture, public ::testing::WithParamInterface<int> {};

}  // namespace

TEST_P(Signals, ATransferComesThroughUnharmed) {
  const unsigned short ports[] = {free_port(), free_port()};
  Endpoint& a = kept<Endpoint>();
  Endpoint& b = kept<Endpoint>();
  void* const ios[] = {tarn_create_udp_io(kLoopback, ports[1], ports[0]),
                       tarn_create_udp_io(kLoopback, ports[0], ports[1])};
  const SignalStorm storm(GetParam());
  tarn_attach_io(a.handle(), ios[0]);
  tarn_attach_io(b.handle(), ios[1]);

  size_t count = 0;
  for (; count < kLeastMessages || caught < kLeastSignals; ++count) {
    a.send(pattern(1 + count * 13 % 2000, static_cast<unsigned>(count)));
    ASSERT_TRUE(wait_for_condition([&] { return b.reliable_received.count() + 8 > count; }, 20000));
  }
  ASSERT_TRUE(wait_for_condition([&] { return b.reliable_received.count() == count; }, 20000));

  for (size_t i = 0; i < count; ++i) {
    ASSERT_EQ(b.reliable_received.at(i), pattern(1 + i * 13 % 2000, static_cast<unsigned>(i)));
  }
  EXPECT_EQ(tarn_wait_destroy(a.handle(), 1000), 0);
  EXPECT_EQ(tarn_wait_destroy(b.handle(), 1000), 0);
  for (void* const io : ios) tarn_destroy_io(io);
  EXPECT_EQ(caught_by_library, 0u);
}

TEST_P(Signals, HandOversAndListenersWorkOn) {
  const int before = open_descriptors();
  {
    const SignalStorm storm(GetParam());
    for (int i = 0; i < 20; ++i) {
      NewHandles handles;
      const unsigned short port = free_port();
      void* const listener = tarn_start_listen_tcp(port, NewHandles::on_new, &handles);
      PlainSocket peer = PlainSocket::tcp_connect(port);
      // An accept that a signal interrupts hands over a handle whose calls fail, and comes again.
      ASSERT_TRUE(wait_for_condition(
          [&] {
            for (void* const io : handles.all()) tarn_write(io, "x", 1);
            return !peer.receive(1).empty();
          },
          20000));
      tarn_stop_listen(listener);
    }
  }
  EXPECT_EQ(open_descriptors(), before);
}

INSTANTIATE_TEST_SUITE_P(Each, Signals, ::testing::Values(0, SA_RESTART),
                         [](const ::testing::TestParamInfo<int>& test) {
                           return test.param == 0 ? "Interrupting" : "Restarting";
                         });
