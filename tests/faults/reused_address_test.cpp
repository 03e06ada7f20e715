// A handle is an address, and addresses are used again.
#include <gtest/gtest.h>

#include "tarn/io.h"
#include "tests/support/plain_socket.h"
#include "tests/support/scripted_peer.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

using ReusedAddress = SocketFixture;

}  // namespace

TEST_F(ReusedAddress, SocketOfADestroyedSessionFeedsNoOtherOne) {
  const UdpPair pair;
  void* const destroyed = tarn_create();
  tarn_attach_io(destroyed, pair.io);
  tarn_destroy(destroyed);
  ASSERT_TRUE(wait_until_gone(destroyed));
  std::vector<void*> sessions;
  for (int i = 0; i < 1000 && (sessions.empty() || sessions.back() != destroyed); ++i) {
    sessions.push_back(tarn_create());
  }
  DatagramRecorder& heard = *new DatagramRecorder;
  for (void* const session : sessions) {
    tarn_set_recv_unreliable_callback(session, DatagramRecorder::on_data, &heard);
  }

  const Bytes bytes = datagram({unreliable({1, 2, 3})});
  pair.send(std::string(bytes.begin(), bytes.end()));
  io_thread_pass();
  io_thread_pass();

  EXPECT_EQ(heard.count(), 0u);
  for (void* const session : sessions) tarn_destroy(session);
  if (sessions.back() != destroyed) GTEST_SKIP() << "this allocator does not use addresses again";
}
