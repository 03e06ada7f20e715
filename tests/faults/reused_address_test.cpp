// A handle is an address, and addresses are used again.
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "tarn/io.h"
#include "tests/support/kept.h"
#include "tests/support/plain_socket.h"
#include "tests/support/scripted_peer.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

using ReusedAddress = SocketFixture;

// Creates sessions until one is at the address of one that is gone. It does so on the worker, where
// the old one was freed: allocators keep what a thread frees for that thread.
struct Successor {
  void* wanted;
  std::vector<void*> sessions;
  std::atomic<bool> done{false};

  static int on_error(TarnError, void* self) {
    auto* const successor = static_cast<Successor*>(self);
    std::vector<void*>& sessions = successor->sessions;
    while (!successor->done && sessions.size() < 1000) {
      sessions.push_back(tarn_create());
      successor->done = sessions.back() == successor->wanted;
    }
    successor->done = true;
    return 0;
  }
};

// Has the worker do it, as soon as it finds a session silent.
void succeed(Successor& successor) {
  void* const silent = tarn_create();
  tarn_set_error_callback(silent, &Successor::on_error, &successor);
  tarn_config_active_timeout(1);
  EXPECT_TRUE(wait_until([&] { return successor.done.load(); }));
  tarn_destroy(silent);
  EXPECT_TRUE(wait_until_gone(silent));
  restore_default_settings();
}

// A session is attached and destroyed, and others are created. Whether one of them is where it was.
// Nobody asks for the first one while it goes: a call that meets its end frees it on another
// thread.
bool feed_the_successors() {
  const UdpPair pair;
  void* const destroyed = tarn_create();
  tarn_attach_io(destroyed, pair.io);
  tarn_destroy(destroyed);
  settle();
  Successor successor{destroyed, {}, {}};
  succeed(successor);
  const std::vector<void*>& sessions = successor.sessions;
  DatagramRecorder& heard = kept<DatagramRecorder>();
  for (void* const session : sessions) {
    tarn_set_recv_unreliable_callback(session, DatagramRecorder::on_data, &heard);
  }

  const Bytes bytes = datagram({unreliable({1, 2, 3})});
  pair.send(std::string(bytes.begin(), bytes.end()));
  io_thread_pass();
  io_thread_pass();

  EXPECT_EQ(heard.count(), 0u);
  for (void* const session : sessions) tarn_destroy(session);
  return sessions.back() == destroyed;
}

}  // namespace

TEST_F(ReusedAddress, SocketOfADestroyedSessionFeedsNoOtherOne) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    if (feed_the_successors()) return;
  }
  GTEST_SKIP() << "this allocator does not use addresses again";
}
