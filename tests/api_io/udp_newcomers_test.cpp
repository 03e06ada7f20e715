// A UDP listener's socket for a new peer catches whatever comes while it is bound and not yet
// connected: none of it may reach that peer's handle, and no other peer may get lost.
#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <functional>

#include "tarn/io.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"
#include "tests/support/test_listener.h"

using namespace tarn_test;

namespace {

// Runs once, on the thread that binds, when a socket has been bound.
std::atomic<const std::function<void()>*> after_bind{nullptr};

// What the next bind of the library is followed by, until the end of the scope.
class AfterBind {
 public:
  explicit AfterBind(std::function<void()> code) : code_(std::move(code)) { after_bind = &code_; }
  ~AfterBind() { after_bind = nullptr; }
  AfterBind(const AfterBind&) = delete;
  AfterBind& operator=(const AfterBind&) = delete;

 private:
  const std::function<void()> code_;
};

// No socket can be connected to this port of the loopback; 0 stands for none.
std::atomic<unsigned short> unreachable_port{0};

unsigned short port_of(const sockaddr* address) {
  return ntohs(reinterpret_cast<const sockaddr_in*>(address)->sin_port);
}

}  // namespace

// These two stand in front of the system's: the library's own calls come here.
extern "C" int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
  const long result = syscall(SYS_bind, fd, address, size);
  if (const std::function<void()>* const code = after_bind.exchange(nullptr)) (*code)();
  return static_cast<int>(result);
}

extern "C" int connect(int fd, const sockaddr* address, socklen_t size) {
  const unsigned short refused = unreachable_port;
  if (refused != 0 && address->sa_family == AF_INET && port_of(address) == refused) {
    errno = ENETUNREACH;
    return -1;
  }
  return static_cast<int>(syscall(SYS_connect, fd, address, size));
}

namespace {

using Listener = TestListener<tarn_start_listen_udp>;

class UdpNewcomers : public SocketFixture {
 protected:
  const Listener listener_;
  const PlainSocket first_ = PlainSocket::udp();
  const PlainSocket second_ = PlainSocket::udp();
};

}  // namespace

TEST_F(UdpNewcomers, AStrangersDatagramDoesNotReachThePeersHandle) {
  const AfterBind meanwhile([this] { second_.send_to(listener_.port, "from the second"); });

  first_.send_to(listener_.port, "announcement");

  ASSERT_TRUE(listener_.handles.wait_for(2));
  io_thread_pass();
  EXPECT_EQ(tarn_peek_size(listener_.handles.at(0)), 0);
}

TEST_F(UdpNewcomers, AStrangersDatagramAnnouncesItLikeAnyOther) {
  const AfterBind meanwhile([this] { second_.send_to(listener_.port, "from the second"); });

  first_.send_to(listener_.port, "announcement");

  ASSERT_TRUE(listener_.handles.wait_for(2));
  EXPECT_EQ(tarn_write(listener_.handles.at(0), "one", 3), 3);
  EXPECT_EQ(tarn_write(listener_.handles.at(1), "two", 3), 3);
  EXPECT_EQ(first_.receive(), "one");
  EXPECT_EQ(second_.receive(), "two");
}

TEST_F(UdpNewcomers, ThePeersOwnNextDatagramIsNotAnotherPeer) {
  const AfterBind meanwhile([this] { first_.send_to(listener_.port, "at once again"); });

  first_.send_to(listener_.port, "announcement");

  ASSERT_TRUE(listener_.handles.wait_for(1));
  first_.send_to(listener_.port, "later");
  ASSERT_TRUE(wait_until([this] { return tarn_peek_size(listener_.handles.at(0)) == 5; }))
      << "what came before the connection is gone";
  EXPECT_EQ(listener_.handles.count(), 1u);
}

TEST_F(UdpNewcomers, APeerThatCannotBeConnectedLeavesNoSocketOnThePort) {
  unreachable_port = first_.port();
  first_.send_to(listener_.port, "announcement");
  ASSERT_TRUE(listener_.handles.wait_for(1));
  unreachable_port = 0;

  // An unconnected socket on the port would take this one.
  second_.send_to(listener_.port, "announcement");

  ASSERT_TRUE(listener_.handles.wait_for(2));
  EXPECT_EQ(tarn_write(listener_.handles.at(0), "x", 1), -1) << "it has no socket";
  EXPECT_EQ(tarn_write(listener_.handles.at(1), "x", 1), 1);
}
