// Garbage in floods: at a listener, and at a handle that serves a session.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>

#include "tarn/io.h"
#include "tests/faults/epilogue.h"
#include "tests/faults/waiting.h"
#include "tests/support/kept.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

constexpr double kIdleCpuSeconds = 0.15;

using Garbage = SocketFixture;

// Sends random datagrams, half of them with the right header, while it lives.
class Flood {
 public:
  Flood(const PlainSocket& from, unsigned short port)
      : thread_([this, &from, port] {
          std::mt19937 random(11);
          while (!done_) {
            std::string bytes(random() % 1500, '\0');
            for (char& each : bytes) each = static_cast<char>(random());
            if (bytes.size() > 2 && random() % 2 == 0) bytes.replace(0, 2, std::string("$\0", 2));
            from.send_to(port, bytes);
            ++sent_;
          }
        }) {}
  ~Flood() {
    done_ = true;
    thread_.join();
  }
  Flood(const Flood&) = delete;
  Flood& operator=(const Flood&) = delete;
  size_t sent() const { return sent_; }

 private:
  std::atomic<bool> done_{false};
  std::atomic<size_t> sent_{0};
  std::thread thread_;
};

void expect_idle() {
  const double before = process_cpu_seconds();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_LT(process_cpu_seconds() - before, kIdleCpuSeconds);
}

}  // namespace

TEST_F(Garbage, AtAnAttachedHandleStarvesNobodyAndTheSessionWorksOn) {
  // The session is one that garbage cannot lead astray: it only sends.
  const UdpPair pair;
  Endpoint& session = kept<Endpoint>();
  tarn_attach_io(session.handle(), pair.io);
  {
    const Flood flood(pair.peer, pair.io_port);
    ASSERT_TRUE(wait_for_condition([&] { return flood.sent() > 2000; }, 20000));
    expect_sessions_work();
    expect_sockets_work();
  }

  session.send("after the flood");
  EXPECT_TRUE(wait_for_condition(
      [&] { return pair.peer.receive(1).find("after the flood") != std::string::npos; }, 20000));
  tarn_destroy(session.handle());
  expect_idle();
}

TEST_F(Garbage, AtAListenerMakesAHandleForItsSenderAndStarvesNobody) {
  const int before = open_descriptors();
  {
    NewHandles handles;
    const unsigned short port = free_port();
    void* const listener = tarn_start_listen_udp(port, NewHandles::on_new, &handles);
    const PlainSocket flooder = PlainSocket::udp();
    {
      const Flood flood(flooder, port);
      ASSERT_TRUE(wait_for_condition([&] { return flood.sent() > 2000; }, 20000));
      expect_sockets_work();
    }
    EXPECT_GE(handles.count(), 1u);
    // What came before the first handle was connected may have made others.
    EXPECT_LE(handles.count(), 300u);
    expect_idle();
    tarn_stop_listen(listener);
  }
  EXPECT_EQ(open_descriptors(), before);
}
