// TCP peers that reset, go half way, and flood.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <mutex>
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

class StreamPeer : public SocketFixture {
 protected:
  StreamPeer() {
    listener_ = tarn_start_listen_tcp(port_, NewHandles::on_new, &handles_);
    peer_ = PlainSocket::tcp_connect(port_);
    EXPECT_TRUE(handles_.wait_for(1));
  }
  ~StreamPeer() override { tarn_stop_listen(listener_); }

  void* io() const { return handles_.at(0); }

  // Half a second in which nothing happens costs next to nothing.
  static void expect_idle() {
    io_thread_pass();
    const double before = process_cpu_seconds();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_LT(process_cpu_seconds() - before, kIdleCpuSeconds);
  }

  const unsigned short port_ = free_port();
  NewHandles handles_;
  void* listener_;
  PlainSocket peer_;
};

}  // namespace

TEST_F(StreamPeer, ThatResetsInTheMiddleEndsItsStreamAndNothingElse) {
  EventCounter& readable = kept<EventCounter>();
  tarn_set_readable_callback(io(), EventCounter::on_event, &readable);
  peer_.send("beginning");
  ASSERT_TRUE(wait_for_condition([&] { return tarn_peek_size(io()) == 9; }, 20000));

  peer_.reset();

  EXPECT_TRUE(wait_for_condition([&] { return tarn_write(io(), "x", 1) == -1; }, 20000));
  EXPECT_EQ(std::string(tarn_peek(io()), 9), "beginning");
  expect_idle();
  expect_sockets_work();
}

TEST_F(StreamPeer, ThatHalfClosesIsToldOnceAndStillHears) {
  EventCounter& readable = kept<EventCounter>();
  tarn_set_readable_callback(io(), EventCounter::on_event, &readable);

  shutdown(peer_.fd(), SHUT_WR);

  ASSERT_TRUE(readable.wait_for(1));
  expect_idle();
  EXPECT_EQ(readable.count(), 1);
  EXPECT_EQ(tarn_write(io(), "still here", 10), 10);
  EXPECT_EQ(peer_.receive(), "still here");
}

// The library takes whatever comes; the bytes wait in the handle until the reader is ready.
TEST_F(StreamPeer, ThatFloodsASlowReaderLosesNoByteAndStarvesNobody) {
  constexpr size_t kTotal = 6'000'000;
  const std::string block(50'000, 'z');
  EventCounter& readable = kept<EventCounter>();
  tarn_set_readable_callback(io(), EventCounter::on_event, &readable);
  std::thread flood([&] {
    for (size_t sent = 0; sent < kTotal; sent += block.size()) EXPECT_TRUE(peer_.send(block));
  });

  expect_sockets_work();
  size_t taken = 0;
  const bool all = wait_for_condition(
      [&] {
        const int size = std::min(tarn_peek_size(io()), 30'000);
        const std::string bytes(tarn_peek(io()), static_cast<size_t>(size));
        EXPECT_EQ(bytes.find_first_not_of('z'), std::string::npos);
        tarn_consume(io(), size);
        taken += bytes.size();
        return taken >= kTotal;
      },
      60000);

  flood.join();
  EXPECT_TRUE(all);
  EXPECT_EQ(taken, kTotal);
  expect_idle();
}
