// A UDP listener's socket for a new peer catches whatever comes while it is bound and not yet
// connected: only what that peer has sent may reach its handle. And the socket has errors of its
// own.
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

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
  sockaddr_in copy;
  memcpy(&copy, address, sizeof copy);
  return ntohs(copy.sin_port);
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

std::string read_one(void* io) {
  char buffer[100];
  int count = -1;
  EXPECT_TRUE(wait_until([&] { return (count = tarn_read(io, buffer, sizeof buffer)) >= 0; }));
  return std::string(buffer, count > 0 ? static_cast<size_t>(count) : 0);
}

int errno_of_empty_read(void* io) {
  char buffer[100];
  EXPECT_EQ(tarn_read(io, buffer, sizeof buffer), -1);
  return errno;
}

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
  ASSERT_TRUE(listener_.handles.wait_for(1));
  first_.send_to(listener_.port, "from the first");

  EXPECT_EQ(read_one(listener_.handles.at(0)), "from the first");
  EXPECT_EQ(errno_of_empty_read(listener_.handles.at(0)), EAGAIN);
}

TEST_F(UdpNewcomers, AStrangerIsServedWhenItSendsAgain) {
  const AfterBind meanwhile([this] { second_.send_to(listener_.port, "from the second"); });
  first_.send_to(listener_.port, "announcement");
  ASSERT_TRUE(listener_.handles.wait_for(1));

  second_.send_to(listener_.port, "again");

  ASSERT_TRUE(listener_.handles.wait_for(2));
  EXPECT_EQ(tarn_write(listener_.handles.at(0), "one", 3), 3);
  EXPECT_EQ(tarn_write(listener_.handles.at(1), "two", 3), 3);
  EXPECT_EQ(first_.receive(), "one");
  EXPECT_EQ(second_.receive(), "two");
}

TEST_F(UdpNewcomers, NoneOfThePeersOwnDatagramsAfterTheFirstIsLost) {
  const AfterBind meanwhile([this] {
    for (const char* each : {"two", "three", "four"}) first_.send_to(listener_.port, each);
  });

  first_.send_to(listener_.port, "announcement");
  ASSERT_TRUE(listener_.handles.wait_for(1));
  first_.send_to(listener_.port, "five");

  for (const char* each : {"two", "three", "four", "five"}) {
    EXPECT_EQ(read_one(listener_.handles.at(0)), each);
  }
  EXPECT_EQ(listener_.handles.count(), 1u);
}

// They come to the first one's socket while that is bound and not yet connected.
TEST_F(UdpNewcomers, ACrowdOfNewPeersIsNotServedInOneEvent) {
  constexpr int kCrowd = 100;
  std::vector<PlainSocket> crowd;
  for (int i = 0; i < kCrowd; ++i) crowd.push_back(PlainSocket::udp());
  const AfterBind meanwhile([&] {
    for (const PlainSocket& each : crowd) each.send_to(listener_.port, "me too");
  });

  first_.send_to(listener_.port, "announcement");
  ASSERT_TRUE(listener_.handles.wait_for(1));
  io_thread_pass();

  EXPECT_EQ(listener_.handles.count(), 1u) << "the others send again, and then reach the listener";
}

// The error of a refused answer comes out of the new socket before the datagrams that wait there.
TEST_F(UdpNewcomers, APeerThatSendsTwiceAndIsGoneEndsNothing) {
  for (int i = 0; i < 50; ++i) {
    PlainSocket peer = PlainSocket::udp();
    std::atomic<bool> sent{false};
    const AfterBind meanwhile([&] {
      wait_until([&] { return sent.load(); });
      peer.send_to(listener_.port, "second");
      peer.close();
    });
    peer.send_to(listener_.port, "first");
    sent = true;
    const auto count = static_cast<size_t>(i + 1);
    ASSERT_TRUE(listener_.handles.wait_for(count));
    void* const io = listener_.handles.at(count - 1);
    EXPECT_EQ(tarn_write(io, "answer", 6), 6);
    EXPECT_EQ(errno_of_empty_read(io), ECONNREFUSED);
    EXPECT_EQ(read_one(io), "second");
    tarn_destroy_io(io);  // a later peer may get this one's port
  }
}

// Answered on their first handle while the second datagram makes another one: the refusals come to
// whichever socket is connected to the peer, at any moment.
TEST_F(UdpNewcomers, PeersThatSendTwiceAndAreGoneWhileTheyAreAnsweredEndNothing) {
  std::atomic<bool> done{false};
  std::thread application([&] {
    while (!done) {
      for (void* const each : listener_.handles.all()) tarn_write(each, "answer", 6);
    }
  });

  for (int i = 0; i < 300; ++i) {
    const PlainSocket peer = PlainSocket::udp();
    peer.send_to(listener_.port, "one");
    peer.send_to(listener_.port, "two");
  }
  EXPECT_TRUE(listener_.handles.wait_for(1));
  const size_t before = listener_.handles.count();
  EXPECT_TRUE(wait_until([&] {
    first_.send_to(listener_.port, "still there?");
    return first_.receive(1) == "answer";
  }));

  done = true;
  application.join();
  EXPECT_GT(listener_.handles.count(), before);
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
