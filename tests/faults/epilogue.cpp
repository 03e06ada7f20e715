#include "tests/faults/epilogue.h"

#include <gtest/gtest.h>

#include "tarn/io.h"
#include "tests/faults/waiting.h"
#include "tests/support/kept.h"
#include "tests/support/lossy_link.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

namespace tarn_test {
namespace {

constexpr int kLimitMs = 15000;

void send(void* session, Bytes message) {
  tarn_send_reliable(session, reinterpret_cast<char*>(message.data()),
                     static_cast<int>(message.size()));
}

void expect_udp_works() {
  const unsigned short ports[] = {free_port(), free_port()};
  auto& a = kept<Endpoint>();
  auto& b = kept<Endpoint>();
  void* const ios[] = {tarn_create_udp_io(kLoopback, ports[1], ports[0]),
                       tarn_create_udp_io(kLoopback, ports[0], ports[1])};
  tarn_attach_io(a.handle(), ios[0]);
  tarn_attach_io(b.handle(), ios[1]);
  const Bytes message = pattern(2000, 8);
  send(a.handle(), message);
  EXPECT_TRUE(wait_for_condition([&] { return b.reliable_received.count() == 1; }, kLimitMs))
      << "fresh UDP handles";
  EXPECT_EQ(b.reliable_received.last(), message);
  for (Endpoint* const each : {&a, &b}) tarn_destroy(each->handle());
  for (void* const each : ios) tarn_destroy_io(each);
}

void expect_tcp_works() {
  const unsigned short port = free_port();
  auto& handles = kept<NewHandles>();
  void* const listener = tarn_start_listen_tcp(port, NewHandles::on_new, &handles);
  const PlainSocket peer = PlainSocket::tcp_connect(port);
  EXPECT_TRUE(wait_for_condition([&] { return handles.count() > 0; }, kLimitMs))
      << "a fresh listener";
  for (void* const each : handles.all()) EXPECT_EQ(tarn_write(each, "x", 1), 1);
  EXPECT_EQ(peer.receive(), "x");
  tarn_stop_listen(listener);
  for (void* const each : handles.all()) tarn_destroy_io(each);
}

}  // namespace

// The first datagram is lost: only the worker's re-sending brings the message through.
void expect_sessions_work() {
  // Where the worker's thread could not be had, the next call makes it.
  tarn_init();
  auto& a = kept<Endpoint>();
  auto& b = kept<Endpoint>();
  const Bytes message = pattern(100, 9);
  send(a.handle(), message);
  EXPECT_EQ(a.sent.count(), 1u);
  auto& link = kept<LossyLink>(1, LinkFaults{});
  link.connect(a.handle(), b.handle());
  EXPECT_TRUE(wait_for_condition(
      [&] {
        link.pump();
        return b.reliable_received.count() == 1;
      },
      kLimitMs))
      << "a fresh pair of sessions";
  EXPECT_EQ(b.reliable_received.last(), message);
  link.disconnect();
  for (Endpoint* const each : {&a, &b}) tarn_destroy(each->handle());
}

void expect_sockets_work() {
  expect_udp_works();
  expect_tcp_works();
}

void expect_no_descriptors_left(int before, int extra) {
  EXPECT_LE(open_descriptors(), before + kLongLivedDescriptors + extra);
}

}  // namespace tarn_test
