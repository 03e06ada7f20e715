// A TCP listener: accepting, ports that are taken, descriptors that run out, the end.
#include <sys/socket.h>

#include <chrono>

#include "tarn/io.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"
#include "tests/support/test_listener.h"

using namespace tarn_test;

namespace {

using TcpListening = SocketFixture;
using TcpListeningFirst = RealTimeFixture;

using Listener = TestListener<tarn_start_listen_tcp>;
using Stopping = StoppingCallback;

}  // namespace

TEST_F(TcpListening, HandsOverAHandleThatReadsAndWrites) {
  EventCounter readable;
  const Listener listener;
  const PlainSocket peer = PlainSocket::tcp_connect(listener.port);
  ASSERT_TRUE(listener.handles.wait_for(1));
  void* const io = listener.handles.at(0);
  tarn_set_readable_callback(io, EventCounter::on_event, &readable);

  peer.send("question");
  ASSERT_TRUE(wait_until([&] { return tarn_peek_size(io) == 8; }));
  EXPECT_EQ(std::string(tarn_peek(io), 8), "question");
  EXPECT_EQ(tarn_write(io, "answer", 6), 6);

  EXPECT_EQ(peer.receive(), "answer");
  tarn_set_readable_callback(io, nullptr, nullptr);
  io_thread_pass();
}

TEST_F(TcpListening, NewHandleIsNotYetWatched) {
  const Listener listener;
  const PlainSocket peer = PlainSocket::tcp_connect(listener.port);
  peer.send("waiting");
  ASSERT_TRUE(listener.handles.wait_for(1));

  io_thread_pass();

  EXPECT_EQ(tarn_peek_size(listener.handles.at(0)), 0);
}

TEST_F(TcpListening, CallbackRunsOnTheIoThread) {
  EventCounter writeable;
  const Listener listener;
  const UdpPair pair;
  tarn_set_writeable_callback(pair.io, EventCounter::on_event, &writeable);

  const PlainSocket peer = PlainSocket::tcp_connect(listener.port);

  ASSERT_TRUE(listener.handles.wait_for(1));
  ASSERT_TRUE(writeable.wait_for(1));
  EXPECT_EQ(listener.handles.thread(), writeable.thread());
}

TEST_F(TcpListeningFirst, AListenerAloneDoesNotStartTheIoThread) {
  const Listener listener;
  const PlainSocket peer = PlainSocket::tcp_connect(listener.port);
  EXPECT_FALSE(peer.is_readable(100));
  EXPECT_EQ(listener.handles.count(), 0u);

  tarn_destroy_io(tarn_create_udp_io(kLoopback, 9, 0));

  EXPECT_TRUE(listener.handles.wait_for(1));
}

TEST_F(TcpListening, BusyPortGivesAListenerThatReportsNobodyAndDoesNotSpin) {
  const PlainSocket holder = PlainSocket::tcp_listener();
  NewHandles handles;
  const LogCapture log(1);

  void* const listener = tarn_start_listen_tcp(holder.port(), NewHandles::on_new, &handles);

  ASSERT_NE(listener, nullptr);
  EXPECT_EQ(log.count_containing(text("bind port %u failed", holder.port())), 1);
  io_thread_pass();
  const double before = process_cpu_seconds();
  const PlainSocket peer = PlainSocket::tcp_connect(holder.port());
  EXPECT_FALSE(peer.is_readable(300));
  EXPECT_LT(process_cpu_seconds() - before, 0.1);
  EXPECT_EQ(handles.count(), 0u);
  tarn_stop_listen(listener);
}

TEST_F(TcpListening, WithoutACallbackConnectionsAreClosed) {
  const unsigned short port = free_port();
  void* const listener = tarn_start_listen_tcp(port, nullptr, nullptr);

  const PlainSocket peer = PlainSocket::tcp_connect(port);

  EXPECT_TRUE(peer.is_readable(10000));
  EXPECT_EQ(peer.receive(), "");
  tarn_stop_listen(listener);
}

TEST_F(TcpListening, StopFreesThePortAndClosesTheSocket) {
  const int before = open_descriptors();
  const unsigned short port = free_port();
  NewHandles handles;
  void* const listener = tarn_start_listen_tcp(port, NewHandles::on_new, &handles);

  tarn_stop_listen(listener);

  EXPECT_EQ(open_descriptors(), before);
  const PlainSocket successor = PlainSocket::tcp_listener(port);
  EXPECT_EQ(successor.port(), port);
}

TEST_F(TcpListening, StopsInsideItsOwnCallback) {
  Stopping object;
  const unsigned short port = free_port();
  object.listener = tarn_start_listen_tcp(port, Stopping::on_new, &object);

  const PlainSocket peer = PlainSocket::tcp_connect(port);

  ASSERT_TRUE(object.handles.wait_for(1));
  io_thread_pass();
  const PlainSocket successor = PlainSocket::tcp_listener(port);
  EXPECT_EQ(successor.port(), port) << "the port is free again";
}

// The socket is watched before it listens, and must not be given up in between.
TEST_F(TcpListening, EveryListenerStartedWhileTheIoThreadIsBusyAccepts) {
  EventCounter readable;
  const UdpPair busy;
  tarn_set_readable_callback(busy.io, EventCounter::on_event, &readable);
  busy.send("never read, so the I/O thread turns without a pause");

  for (int i = 0; i < 300; ++i) {
    const Listener listener;
    const PlainSocket peer = PlainSocket::tcp_connect(listener.port);
    ASSERT_TRUE(wait_until([&] { return listener.handles.count() == 1; }, 2000)) << i;
  }
  tarn_set_readable_callback(busy.io, EventCounter::on_event, &readable);
  char buffer[100];
  tarn_read(busy.io, buffer, sizeof buffer);
  io_thread_pass();
}

TEST_F(TcpListening, ConnectionThatCannotBeAcceptedYieldsAHandleWhoseCallsFail) {
  const Listener listener;
  PlainSocket peer(socket(AF_INET, SOCK_STREAM, 0));
  const LogCapture log(1);
  {
    const DescriptorShortage shortage;
    peer.connect(listener.port);
    ASSERT_TRUE(listener.handles.wait_for(1));
  }
  void* const io = listener.handles.at(0);

  EXPECT_GE(log.count_containing(text("accept failed error %d", EMFILE)), 1);
  EXPECT_EQ(tarn_write(io, "x", 1), -1);
  EXPECT_EQ(tarn_peek_size(io), 0);
}

TEST_F(TcpListening, ShortageOfDescriptorsDoesNotSpinAndEnds) {
  const Listener listener;
  PlainSocket peer(socket(AF_INET, SOCK_STREAM, 0));
  size_t failed = 0;
  {
    const DescriptorShortage shortage;
    peer.connect(listener.port);
    ASSERT_TRUE(listener.handles.wait_for(1));
    const double before = process_cpu_seconds();
    EXPECT_FALSE(peer.is_readable(500));
    EXPECT_LT(process_cpu_seconds() - before, 0.1);
    failed = listener.handles.count();
    EXPECT_LE(failed, 10u);
  }

  EXPECT_TRUE(wait_until([&] {
    const std::vector<void*> all = listener.handles.all();
    return tarn_write(all.back(), "x", 1) == 1;
  }));
  EXPECT_EQ(peer.receive(), "x");
}

TEST_F(TcpListening, OtherSocketsAreServedDuringAShortage) {
  EventCounter readable;
  const Listener listener;
  const UdpPair pair;
  tarn_set_readable_callback(pair.io, EventCounter::on_event, &readable);
  PlainSocket peer(socket(AF_INET, SOCK_STREAM, 0));
  const DescriptorShortage shortage;
  peer.connect(listener.port);
  ASSERT_TRUE(listener.handles.wait_for(1));

  pair.send("x");

  EXPECT_TRUE(readable.wait_for(1));
  char buffer[4];
  EXPECT_EQ(tarn_read(pair.io, buffer, sizeof buffer), 1);
  io_thread_pass();
}

TEST_F(TcpListening, HandlesMadeDuringAShortageFailAndGoAsAnyOther) {
  EventCounter events;
  void* udp = nullptr;
  void* tcp = nullptr;
  {
    const DescriptorShortage shortage;
    udp = tarn_create_udp_io(kLoopback, 9, free_port());
    tcp = tarn_create_tcp_io(kLoopback, 9);
    EXPECT_EQ(tarn_start_listen_udp(9, NewHandles::on_new, nullptr), nullptr);
    tarn_stop_listen(tarn_start_listen_tcp(9, NewHandles::on_new, nullptr));
  }

  for (void* const io : {udp, tcp}) {
    ASSERT_NE(io, nullptr);
    tarn_set_readable_callback(io, EventCounter::on_event, &events);
    tarn_set_writeable_callback(io, EventCounter::on_event, &events);
    tarn_set_io_error_callback(io, EventCounter::on_error, &events);
    EXPECT_EQ(tarn_write(io, "x", 1), -1);
    EXPECT_EQ(tarn_peek_size(io), 0);
    tarn_destroy_io(io);
  }
  EXPECT_EQ(events.count(), 0);
}

TEST_F(TcpListeningFirst, ShortageAtTheStartOfTheIoThreadHangsNobody) {
  void* const io = tarn_create_udp_io(kLoopback, 9, 0);
  EventCounter writeable;
  {
    const DescriptorShortage shortage;
    tarn_set_writeable_callback(io, EventCounter::on_event, &writeable);
  }

  tarn_destroy_io(io);
}

// Without a wake-up every hand-off to the thread takes a whole poll, ten seconds.
TEST_F(TcpListeningFirst, WakeUpIsBuiltOnceDescriptorsAreBack) {
  EventCounter writeable;
  const Listener listener;  // keeps the thread going without a wake-up
  void* const io = tarn_create_udp_io(kLoopback, 9, 0);
  {
    const DescriptorShortage shortage;
    tarn_set_writeable_callback(io, EventCounter::on_event, &writeable);
  }
  const auto start = std::chrono::steady_clock::now();

  tarn_destroy_io(io);

  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}
