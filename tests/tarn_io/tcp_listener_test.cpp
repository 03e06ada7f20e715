// TcpListener: watched from its construction on, before it listens.
#include "tarn_io/tcp_listener.h"

#include <gtest/gtest.h>

#include <atomic>

#include "oxutils/smart_ptr/shared_ptr.h"
#include "tarn_io/tarn_io_thread.h"
#include "tests/support/net_call.h"
#include "tests/support/net_sockets.h"
#include "tests/support/session_fixture.h"

using tarn_test::Call;
using tarn_test::OwnedFd;

namespace {

void count(void*, void* counter) { ++*static_cast<std::atomic<int>*>(counter); }

uint16_t free_port() { return tarn_test::port_of(tarn_test::tcp_listener_on_loopback().get()); }

}  // namespace

TEST(TcpListener, HearsAConnectionAlthoughItWasPolledBeforeItListened) {
  TarnIoThread* const thread = TarnIoThread::instance();
  std::atomic<int> connections{0};
  const oxutils::shared_ptr<TarnListener> listener(new TcpListener);
  listener->set_new_conn_callback(count, &connections);
  Call turn;
  for (int i = 0; i < 3; ++i) thread->wait(turn.function());  // passes that see it hung up

  const uint16_t port = free_port();
  ASSERT_TRUE(listener->listen(port));
  const OwnedFd peer = tarn_test::connect_tcp(port);

  EXPECT_TRUE(tarn_test::wait_until([&] { return connections == 1; }, 2000));
  listener->stop();
}
