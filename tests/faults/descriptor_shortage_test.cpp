// Descriptors run out at every point of every creation call. The I/O thread runs already: that it
// cannot begin without descriptors is another matter.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <vector>

#include "tarn/io.h"
#include "tests/faults/epilogue.h"
#include "tests/support/kept.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

using Shortage = SocketFixture;

// While it lives, `count` descriptors can be opened and no more.
class DescriptorsLeft {
 public:
  explicit DescriptorsLeft(unsigned count) {
    getrlimit(RLIMIT_NOFILE, &before_);
    const int lowest = dup(STDOUT_FILENO);
    close(lowest);
    set(static_cast<rlim_t>(lowest) + count);
  }
  ~DescriptorsLeft() { set(before_.rlim_cur); }
  DescriptorsLeft(const DescriptorsLeft&) = delete;
  DescriptorsLeft& operator=(const DescriptorsLeft&) = delete;

  void set(rlim_t limit) const {
    rlimit now = before_;
    now.rlim_cur = limit;
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &now), 0);
  }

 private:
  rlimit before_{};
};

struct Made {
  std::vector<void*> ios;
  std::vector<void*> listeners;
};

// One of each, none of them watched by then.
Made make_everything(NewHandles& handles, const std::array<unsigned short, 3>& ports) {
  Made made;
  made.ios.push_back(tarn_create_udp_io(kLoopback, 9, 0));
  made.ios.push_back(tarn_create_udp_io(kLoopback, 9, ports[0]));
  made.ios.push_back(tarn_create_tcp_io(kLoopback, 9));
  made.listeners.push_back(tarn_start_listen_tcp(ports[1], NewHandles::on_new, &handles));
  made.listeners.push_back(tarn_start_listen_udp(ports[2], NewHandles::on_new, &handles));
  return made;
}

void use_and_destroy(const Made& made) {
  void* const session = tarn_create();
  EventCounter& events = kept<EventCounter>();
  for (void* const io : made.ios) {
    ASSERT_NE(io, nullptr);
    tarn_set_writeable_callback(io, EventCounter::on_event, &events);
    tarn_write(io, "x", 1);
    tarn_peek_size(io);
  }
  tarn_attach_io(session, made.ios[0]);
  char message[] = "message";
  tarn_send_reliable(session, message, sizeof message);
  for (void* const io : made.ios) tarn_destroy_io(io);
  for (void* const listener : made.listeners) tarn_stop_listen(listener);
  tarn_destroy(session);
}

}  // namespace

TEST_F(Shortage, AtEveryPointOfEveryCreationLeavesNothingBehind) {
  NewHandles handles;
  for (unsigned left = 0; left <= 7; ++left) {
    const int before = open_descriptors();
    const std::array<unsigned short, 3> ports{free_port(), free_port(), free_port()};
    Made made;
    {
      const DescriptorsLeft shortage(left);
      made = make_everything(handles, ports);
    }

    use_and_destroy(made);

    ASSERT_EQ(open_descriptors(), before) << left;
  }
  expect_sessions_work();
  expect_sockets_work();
}

// poll() refuses to watch more descriptors than may be open.
TEST_F(Shortage, LimitBelowWhatIsWatchedDoesNotSpin) {
  EventCounter& events = kept<EventCounter>();
  std::vector<void*> ios;
  for (int i = 0; i < 5; ++i) {
    ios.push_back(tarn_create_udp_io(kLoopback, 9, 0));
    tarn_set_readable_callback(ios.back(), EventCounter::on_event, &events);
  }
  io_thread_pass();
  {
    const DescriptorsLeft limit(0);
    limit.set(2);
    io_thread_pass();
    const double before = process_cpu_seconds();
    usleep(500'000);
    EXPECT_LT(process_cpu_seconds() - before, 0.03);
  }

  for (void* const io : ios) tarn_destroy_io(io);
  expect_sockets_work();
}
