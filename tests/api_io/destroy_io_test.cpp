// The end of a handle: twice, late output, inside callbacks, and what is left afterwards.
#include <fcntl.h>
#include <sys/socket.h>

#include <memory>

#include "tarn/io.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

using DestroyIo = SocketFixture;

// Destroys its handle inside the callback and goes on running for longer than it is kept.
struct SelfDestroying {
  static void on_event(void* object) {
    auto* const self = static_cast<SelfDestroying*>(object);
    tarn_destroy_io(self->io);
    const LogCapture log(2);
    self->was_kept = wait_until([&] {
      tarn_write(self->io, "x", 1);
      return log.count_containing("tarn_write fail,bad io") > 0;
    });
    EventCounter::on_event(&self->calls);
  }
  static void on_error(int, void* object) { on_event(object); }

  void* io;
  std::atomic<bool> was_kept{false};
  EventCounter calls;
};

// Reconnects from inside the error callback, as an application would.
struct Reconnecting {
  static void on_error(int, void* object) {
    auto* const self = static_cast<Reconnecting*>(object);
    if (self->second != nullptr) return;
    tarn_destroy_io(self->first);
    self->second = tarn_create_tcp_io("192.0.2.77", 9);
    tarn_set_readable_callback(self->second, EventCounter::on_event, &self->readable);
    tarn_set_writeable_callback(self->second, EventCounter::on_event, &self->writeable);
    EventCounter::on_event(&self->calls);
  }

  void* first = nullptr;
  void* second = nullptr;
  EventCounter calls;
  EventCounter readable;
  EventCounter writeable;
};

// Opens the next connection from inside the writeable callback of the one before.
struct Renewing {
  static void on_writeable(void* object) {
    auto* const self = static_cast<Renewing*>(object);
    EventCounter::on_event(&self->calls);
    tarn_destroy_io(self->io);
    if (self->calls.count() == 5) return;
    self->io = tarn_create_tcp_io(kLoopback, self->port);
    tarn_set_writeable_callback(self->io, on_writeable, self);
  }

  void* io;
  unsigned short port;
  EventCounter calls;
};

}  // namespace

TEST_F(DestroyIo, ClosesTheSocketBeforeItReturns) {
  PlainSocket listener = PlainSocket::tcp_listener();
  void* const io = tarn_create_tcp_io(kLoopback, listener.port());
  const PlainSocket peer = listener.accept();
  const LogCapture log(5);

  tarn_destroy_io(io);

  EXPECT_EQ(log.count_containing("close socket "), 1);
  EXPECT_TRUE(peer.is_readable(10000));
  EXPECT_EQ(peer.receive(), "") << "the end of the stream";
}

TEST_F(DestroyIo, FreesTheLocalPort) {
  const unsigned short port = free_port();
  tarn_destroy_io(tarn_create_udp_io(kLoopback, 9, port));

  EXPECT_GE(PlainSocket::udp(port).fd(), 0);
}

TEST_F(DestroyIo, AgainIsIgnoredWithoutAWord) {
  const unsigned short port = free_port();
  void* const io = tarn_create_udp_io(kLoopback, 9, port);
  tarn_destroy_io(io);
  const PlainSocket successor = PlainSocket::udp(port);  // may have got the descriptor's number
  const LogCapture log(5);

  tarn_destroy_io(io);
  tarn_destroy_io(io);

  EXPECT_EQ(log.count_containing("close socket"), 0);
  EXPECT_EQ(log.count_containing("fail"), 0);
  EXPECT_EQ(successor.port(), port);
}

TEST_F(DestroyIo, NoCallbackRunsAfterwards) {
  for (int i = 0; i < 200; ++i) {
    auto pair = std::make_unique<UdpPair>();
    EventCounter events;
    pair->send("never read");
    tarn_set_readable_callback(pair->io, EventCounter::on_event, &events);
    tarn_set_writeable_callback(pair->io, EventCounter::on_event, &events);

    tarn_destroy_io(pair->io);
    const int count = events.count();
    io_thread_pass();

    ASSERT_EQ(events.count(), count);
  }
}

TEST_F(DestroyIo, CallsOnADestroyedHandleFailAndTouchNoOtherSocket) {
  const UdpPair pair;
  void* const gone = tarn_create_udp_io(kLoopback, 9, 0);
  tarn_destroy_io(gone);
  PlainSocket peer = PlainSocket::udp();
  PlainSocket successor = PlainSocket::udp();
  successor.connect(peer.port());
  peer.send_to(successor.port(), "for the successor");
  ASSERT_TRUE(successor.is_readable(10000));
  char buffer[32];

  EXPECT_EQ(tarn_write(gone, "x", 1), -1);
  EXPECT_EQ(tarn_read(gone, buffer, sizeof buffer), -1);
  EXPECT_EQ(tarn_peek_size(gone), 0);

  EXPECT_EQ(successor.receive(), "for the successor");
  EXPECT_FALSE(peer.is_readable(0));
}

TEST_F(DestroyIo, CallbacksSetOnADestroyedHandleNeverRun) {
  void* const gone = tarn_create_udp_io(kLoopback, 9, 0);
  tarn_destroy_io(gone);
  EventCounter events;
  const UdpPair successor;  // may have got the descriptor's number

  tarn_set_readable_callback(gone, EventCounter::on_event, &events);
  tarn_set_writeable_callback(gone, EventCounter::on_event, &events);
  tarn_set_io_error_callback(gone, EventCounter::on_error, &events);
  successor.send("x");
  io_thread_pass();

  EXPECT_EQ(events.count(), 0);
}

TEST_F(DestroyIo, SessionGoesOnWithoutOutputHoweverLateItSends) {
  Endpoint session;
  void* io = nullptr;
  {
    const UdpPair pair;
    io = pair.io;
    tarn_attach_io(session.handle(), io);
  }
  session.send_unreliable("within the 500 ms");
  const LogCapture log(2);
  ASSERT_TRUE(wait_until([&] {
    tarn_write(io, "x", 1);
    return log.count_containing("bad io") > 0;
  }));
  const UdpPair successor;

  for (int i = 0; i < 100; ++i) session.send_unreliable("later");
  session.send("re-sent for ever");
  settle();

  EXPECT_FALSE(successor.peer.is_readable(0));
}

TEST_F(DestroyIo, InsideItsReadableCallbackThatGoesOnRunning) {
  UdpPair pair;
  SelfDestroying object;
  object.io = pair.io;
  pair.send("x");

  tarn_set_readable_callback(pair.io, SelfDestroying::on_event, &object);

  ASSERT_TRUE(object.calls.wait_for(1));
  EXPECT_TRUE(object.was_kept);
  io_thread_pass();
  EXPECT_EQ(object.calls.count(), 1);
}

TEST_F(DestroyIo, InsideItsWriteableCallbackThatGoesOnRunning) {
  UdpPair pair;
  SelfDestroying object;
  object.io = pair.io;

  tarn_set_writeable_callback(pair.io, SelfDestroying::on_event, &object);

  ASSERT_TRUE(object.calls.wait_for(1));
  io_thread_pass();
  EXPECT_EQ(object.calls.count(), 1);
}

TEST_F(DestroyIo, InsideItsErrorCallbackThatGoesOnRunning) {
  SelfDestroying object;
  object.io = tarn_create_tcp_io(kLoopback, free_port());

  tarn_set_io_error_callback(object.io, SelfDestroying::on_error, &object);

  ASSERT_TRUE(object.calls.wait_for(1));
  io_thread_pass();
  EXPECT_EQ(object.calls.count(), 1);
}

TEST_F(DestroyIo, ByManyThreadsAtOnceReleasesOnce) {
  const LogCapture log(5);
  for (int i = 0; i < 50; ++i) {
    void* const io = tarn_create_udp_io(kLoopback, 9, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back([io] { tarn_destroy_io(io); });
    for (std::thread& thread : threads) thread.join();
  }

  EXPECT_EQ(log.count_containing("close socket "), 50);
}

TEST_F(DestroyIo, WhileOtherThreadsWriteAndReadIt) {
  for (int i = 0; i < 50; ++i) {
    const UdpPair pair;
    std::atomic<bool> done{false};
    std::thread user([&] {
      char buffer[16];
      while (!done) {
        tarn_write(pair.io, "x", 1);
        tarn_read(pair.io, buffer, sizeof buffer);
        tarn_peek_size(pair.io);
      }
    });
    EXPECT_TRUE(pair.peer.is_readable(10000));

    tarn_destroy_io(pair.io);

    done = true;
    user.join();
  }
}

TEST_F(DestroyIo, LeavesNoDescriptorBehind) {
  const int before = open_descriptors();

  for (int i = 0; i < 300; ++i) {
    EventCounter events;
    void* const udp = tarn_create_udp_io(kLoopback, 9, 0);
    tarn_set_readable_callback(udp, EventCounter::on_event, &events);
    void* const tcp = tarn_create_tcp_io(kLoopback, free_port());
    tarn_destroy_io(udp);
    tarn_destroy_io(tcp);
    tarn_destroy_io(tarn_create_io_from_fd(dup(0)));
  }

  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(DestroyIo, ConnectionOpenedInsideAnErrorCallbackGetsNoneOfTheOldEvents) {
  PlainSocket listener = PlainSocket::tcp_listener();
  Reconnecting object;
  EventCounter readable;
  object.first = tarn_create_tcp_io(kLoopback, listener.port());
  PlainSocket peer = listener.accept();
  tarn_set_io_error_callback(object.first, Reconnecting::on_error, &object);
  tarn_set_readable_callback(object.first, EventCounter::on_event, &readable);
  io_thread_pass();

  peer.reset();

  ASSERT_TRUE(object.calls.wait_for(1));
  io_thread_pass();
  EXPECT_EQ(object.readable.count(), 0) << "nothing can have come";
  EXPECT_EQ(object.writeable.count(), 0) << "it is not connected";
  tarn_destroy_io(object.second);
}

TEST_F(DestroyIo, ConnectionOpenedInsideAWriteableCallbackIsToldItsOwn) {
  PlainSocket listener = PlainSocket::tcp_listener();
  Renewing object;
  object.port = listener.port();
  object.io = tarn_create_tcp_io(kLoopback, object.port);

  tarn_set_writeable_callback(object.io, Renewing::on_writeable, &object);

  EXPECT_TRUE(wait_until([&] { return object.calls.count() == 5; }, 3000)) << object.calls.count();
  io_thread_pass();  // the last callback has returned
}
