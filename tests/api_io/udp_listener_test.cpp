// A UDP listener: a handle per peer, the datagram that announces it, the end of the listening.
#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>

#include "tarn/io.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"
#include "tests/support/test_listener.h"

using namespace tarn_test;

namespace {

using UdpListening = SocketFixture;
using UdpListeningFirst = RealTimeFixture;

std::string read_from(void* io) {
  char buffer[1500];
  const int count = tarn_read(io, buffer, sizeof buffer);
  return std::string(buffer, count > 0 ? static_cast<size_t>(count) : 0);
}

using Listener = TestListener<tarn_start_listen_udp>;
using Stopping = StoppingCallback;

// Serves each new peer by reading what it sends.
struct Readers {
  struct Reader {
    static void on_readable(void* object) {
      auto* const self = static_cast<Reader*>(object);
      const std::string bytes = read_from(self->io);
      if (bytes.empty()) return;
      const std::lock_guard<std::mutex> lock(self->all->guard);
      self->received.push_back(bytes);
    }
    Readers* all;
    void* io;
    std::vector<std::string> received;
  };

  static void on_new(void* io, void* object) {
    auto* const self = static_cast<Readers*>(object);
    NewHandles::on_new(io, &self->handles);
    Reader* const reader = new Reader{self, io, {}};
    {
      const std::lock_guard<std::mutex> lock(self->guard);
      self->readers.emplace_back(reader);
    }
    tarn_set_readable_callback(io, Reader::on_readable, reader);
  }

  std::mutex guard;
  std::vector<std::unique_ptr<Reader>> readers;
  NewHandles handles;  // last: destroyed, and so unwatched, before the readers
};

}  // namespace

TEST_F(UdpListening, FirstDatagramAnnouncesThePeerAndIsDeliveredToNobody) {
  const Listener listener;
  const PlainSocket peer = PlainSocket::udp();

  peer.send_to(listener.port, "announcement");

  ASSERT_TRUE(listener.handles.wait_for(1));
  EXPECT_EQ(tarn_peek_size(listener.handles.at(0)), 0);
  peer.send_to(listener.port, "delivered");
  ASSERT_TRUE(wait_until([&] { return tarn_peek_size(listener.handles.at(0)) == 9; }));
  EXPECT_EQ(read_from(listener.handles.at(0)), "delivered");
}

TEST_F(UdpListening, CallbackRunsOnTheIoThread) {
  EventCounter writeable;
  const Listener listener;
  const UdpPair pair;
  tarn_set_writeable_callback(pair.io, EventCounter::on_event, &writeable);
  const PlainSocket peer = PlainSocket::udp();

  peer.send_to(listener.port, "x");

  ASSERT_TRUE(listener.handles.wait_for(1));
  ASSERT_TRUE(writeable.wait_for(1));
  EXPECT_EQ(listener.handles.thread(), writeable.thread());
}

TEST_F(UdpListening, AnswersComeFromTheListenersPort) {
  const Listener listener;
  const PlainSocket peer = PlainSocket::udp();
  peer.send_to(listener.port, "x");
  ASSERT_TRUE(listener.handles.wait_for(1));

  EXPECT_EQ(tarn_write(listener.handles.at(0), "answer", 6), 6);

  unsigned short from = 0;
  EXPECT_EQ(peer.receive_from(from), "answer");
  EXPECT_EQ(from, listener.port);
}

TEST_F(UdpListening, EachPeerGetsAHandleOfItsOwn) {
  const Listener listener;
  std::vector<PlainSocket> peers;
  for (size_t i = 0; i < 50; ++i) {
    peers.push_back(PlainSocket::udp());
    peers.back().send_to(listener.port, "x");
    ASSERT_TRUE(listener.handles.wait_for(i + 1));
  }

  for (size_t i = 0; i < peers.size(); ++i) {
    const std::string name = "peer " + std::to_string(i);
    peers[i].send_to(listener.port, name);
    ASSERT_TRUE(wait_until([&] { return tarn_peek_size(listener.handles.at(i)) > 0; })) << i;
    EXPECT_EQ(read_from(listener.handles.at(i)), name);
  }
  EXPECT_EQ(listener.handles.count(), 50u);
}

TEST_F(UdpListening, EmptyDatagramAnnouncesAPeerToo) {
  const Listener listener;
  const PlainSocket peer = PlainSocket::udp();

  peer.send_to(listener.port, "");

  EXPECT_TRUE(listener.handles.wait_for(1));
}

TEST_F(UdpListening, StartTakes100Ms) {
  const auto start = std::chrono::steady_clock::now();
  const Listener listener;

  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

TEST_F(UdpListening, BusyPortGivesNullAtOnceAndIsLogged) {
  const PlainSocket holder = PlainSocket::udp();
  const int before = open_descriptors();
  const LogCapture log(1);

  EXPECT_EQ(tarn_start_listen_udp(holder.port(), NewHandles::on_new, nullptr), nullptr);

  EXPECT_EQ(log.count_containing(text("bind port %u failed", holder.port())), 1);
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(UdpListeningFirst, AListenerAloneDoesNotStartTheIoThread) {
  const Listener listener;
  const PlainSocket peer = PlainSocket::udp();
  peer.send_to(listener.port, "x");
  EXPECT_FALSE(peer.is_readable(100));
  EXPECT_EQ(listener.handles.count(), 0u);

  tarn_destroy_io(tarn_create_udp_io(kLoopback, 9, 0));

  EXPECT_TRUE(listener.handles.wait_for(1));
}

TEST_F(UdpListening, WithoutACallbackPeersAreClosed) {
  const unsigned short port = free_port();
  void* const listener = tarn_start_listen_udp(port, nullptr, nullptr);
  const int before = open_descriptors();
  const PlainSocket peer = PlainSocket::udp();
  const LogCapture log(5);

  peer.send_to(port, "x");

  EXPECT_TRUE(log.wait_for("close socket"));
  io_thread_pass();  // the line comes before the closing
  EXPECT_EQ(open_descriptors(), before + 1) << "the peer's own";
  tarn_stop_listen(listener);
}

// The kernel wakes a reader and then drops a datagram with a bad checksum.
TEST_F(UdpListening, KeepsListeningWhenWokenWithoutADatagram) {
  const Listener listener;
  const PlainSocket raw(socket(AF_INET, SOCK_RAW, IPPROTO_UDP));
  if (raw.fd() < 0 && geteuid() != 0) GTEST_SKIP() << "raw sockets need privileges";
  ASSERT_GE(raw.fd(), 0);
  const unsigned short to = listener.port;
  const unsigned char damaged[] = {0x12,
                                   0x34,  // from
                                   static_cast<unsigned char>(to >> 8),
                                   static_cast<unsigned char>(to & 255),
                                   0,
                                   12,  // length
                                   0xde,
                                   0xad,  // checksum
                                   'b',
                                   'a',
                                   'd',
                                   '!'};
  const std::string bytes(damaged, damaged + sizeof damaged);

  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(raw.send_to(0, bytes));
    io_thread_pass();
  }

  EXPECT_EQ(listener.handles.count(), 0u);
  const PlainSocket peer = PlainSocket::udp();
  peer.send_to(listener.port, "x");
  EXPECT_TRUE(listener.handles.wait_for(1));
}

TEST_F(UdpListening, StopFreesThePortAndEndsTheCallbacks) {
  NewHandles handles;
  const unsigned short port = free_port();
  void* const listener = tarn_start_listen_udp(port, NewHandles::on_new, &handles);

  tarn_stop_listen(listener);

  const PlainSocket successor = PlainSocket::udp(port);
  ASSERT_GE(successor.fd(), 0);
  const PlainSocket peer = PlainSocket::udp();
  peer.send_to(port, "x");
  EXPECT_EQ(successor.receive(), "x");
  EXPECT_EQ(handles.count(), 0u);
}

TEST_F(UdpListening, PeersGoOnAfterTheListenerIsStopped) {
  NewHandles handles;
  const unsigned short port = free_port();
  void* const listener = tarn_start_listen_udp(port, NewHandles::on_new, &handles);
  const PlainSocket peer = PlainSocket::udp();
  peer.send_to(port, "x");
  ASSERT_TRUE(handles.wait_for(1));

  tarn_stop_listen(listener);

  peer.send_to(port, "after");
  ASSERT_TRUE(wait_until([&] { return tarn_peek_size(handles.at(0)) == 5; }));
  EXPECT_EQ(tarn_write(handles.at(0), "x", 1), 1);
}

TEST_F(UdpListening, StopsInsideItsOwnCallback) {
  Stopping object;
  const unsigned short port = free_port();
  object.listener = tarn_start_listen_udp(port, Stopping::on_new, &object);
  const PlainSocket first = PlainSocket::udp();
  const PlainSocket second = PlainSocket::udp();

  first.send_to(port, "x");
  ASSERT_TRUE(object.handles.wait_for(1));
  second.send_to(port, "x");
  io_thread_pass();

  EXPECT_EQ(object.handles.count(), 1u);
}

TEST_F(UdpListening, CallbackMayWatchTheHandleAtOnce) {
  Readers readers;
  const unsigned short port = free_port();
  void* const listener = tarn_start_listen_udp(port, Readers::on_new, &readers);
  const PlainSocket peer = PlainSocket::udp();
  peer.send_to(port, "announcement");
  ASSERT_TRUE(readers.handles.wait_for(1));

  peer.send_to(port, "data");

  EXPECT_TRUE(wait_until([&] {
    const std::lock_guard<std::mutex> lock(readers.guard);
    // The handle is counted before it has a reader.
    return !readers.readers.empty() &&
           readers.readers[0]->received == std::vector<std::string>{"data"};
  }));
  tarn_stop_listen(listener);
}
