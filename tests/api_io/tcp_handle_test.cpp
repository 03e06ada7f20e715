// A TCP handle: connecting, the buffer that the I/O thread fills, the end of the stream.
#include <sys/socket.h>

#include "tarn/io.h"
#include "tests/support/kit_death.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

// A connected handle and its peer.
struct TcpPair {
  TcpPair() {
    io = tarn_create_tcp_io(kLoopback, listener.port());
    peer = listener.accept();
    EXPECT_GE(peer.fd(), 0);
  }
  ~TcpPair() { tarn_destroy_io(io); }
  TcpPair(const TcpPair&) = delete;
  TcpPair& operator=(const TcpPair&) = delete;

  void watch() { tarn_set_readable_callback(io, EventCounter::on_event, &readable); }
  std::string buffered() const {
    const int size = tarn_peek_size(io);
    return std::string(tarn_peek(io), static_cast<size_t>(size));
  }
  bool wait_for_size(int size) const {
    return wait_until([&] { return tarn_peek_size(io) >= size; });
  }

  PlainSocket listener = PlainSocket::tcp_listener();
  PlainSocket peer;
  void* io = nullptr;
  EventCounter readable;
};

// Takes everything inside the callback.
struct Drainer {
  static void on_readable(void* drainer) {
    auto* const self = static_cast<Drainer*>(drainer);
    const int size = tarn_peek_size(self->io);
    const std::string part(tarn_peek(self->io), static_cast<size_t>(size));
    tarn_consume(self->io, size);
    const std::lock_guard<std::mutex> lock(self->guard);
    self->taken += part;
  }
  size_t size() {
    const std::lock_guard<std::mutex> lock(guard);
    return taken.size();
  }

  void* io;
  std::mutex guard;
  std::string taken;
};

using TcpHandle = SocketFixture;

std::string numbered(size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 + i / 251);
  return bytes;
}

}  // namespace

TEST_F(TcpHandle, ConnectsInTheBackgroundAndTellsItAsAWriteableEvent) {
  PlainSocket listener = PlainSocket::tcp_listener();
  EventCounter writeable;

  void* const io = tarn_create_tcp_io(kLoopback, listener.port());
  tarn_set_writeable_callback(io, EventCounter::on_event, &writeable);

  EXPECT_TRUE(writeable.wait_for(1));
  const PlainSocket peer = listener.accept();
  EXPECT_EQ(tarn_write(io, "hi", 2), 2);
  EXPECT_EQ(peer.receive(), "hi");
  tarn_destroy_io(io);
}

TEST_F(TcpHandle, RefusedConnectionShowsAsAnErrorEvent) {
  EventCounter errors;

  void* const io = tarn_create_tcp_io(kLoopback, free_port());
  ASSERT_NE(io, nullptr);
  tarn_set_io_error_callback(io, EventCounter::on_error, &errors);

  EXPECT_TRUE(errors.wait_for(1));
  EXPECT_EQ(errors.error(), 0) << "the code remembered, not the present one";
  tarn_destroy_io(io);
}

TEST_F(TcpHandle, DataIsInTheBufferWhenTheReadableCallbackRuns) {
  Drainer drainer;
  TcpPair pair;
  drainer.io = pair.io;
  tarn_set_readable_callback(pair.io, Drainer::on_readable, &drainer);

  pair.peer.send("from the peer");

  ASSERT_TRUE(wait_until([&] { return drainer.size() == 13; }));
  EXPECT_EQ(drainer.taken, "from the peer");
  EXPECT_EQ(tarn_peek_size(pair.io), 0);
}

TEST_F(TcpHandle, DataNotTakenInsideTheCallbackIsTakenLater) {
  TcpPair pair;
  pair.watch();
  pair.peer.send("part one,");
  ASSERT_TRUE(pair.wait_for_size(9));
  pair.peer.send("part two");
  ASSERT_TRUE(pair.wait_for_size(17));

  EXPECT_EQ(pair.buffered(), "part one,part two");
  tarn_consume(pair.io, 9);
  EXPECT_EQ(pair.buffered(), "part two");
  tarn_consume(pair.io, 8);
  EXPECT_EQ(tarn_peek_size(pair.io), 0);
}

TEST_F(TcpHandle, NothingIsBufferedBeforeTheHandleIsWatched) {
  TcpPair pair;
  pair.peer.send("waiting");
  io_thread_pass();

  EXPECT_EQ(tarn_peek_size(pair.io), 0);
  pair.watch();
  EXPECT_TRUE(pair.wait_for_size(7));
}

TEST_F(TcpHandle, ConsumeOfNothingOrLessDropsNothing) {
  TcpPair pair;
  pair.watch();
  pair.peer.send("kept");
  ASSERT_TRUE(pair.wait_for_size(4));

  tarn_consume(pair.io, 0);
  tarn_consume(pair.io, -3);

  EXPECT_EQ(pair.buffered(), "kept");
}

TEST_F(TcpHandle, KeepsTheOrderOfMegabytes) {
  Drainer drainer;
  TcpPair pair;
  drainer.io = pair.io;
  tarn_set_readable_callback(pair.io, Drainer::on_readable, &drainer);
  const std::string sent = numbered(4'000'000);

  std::thread sender([&] { pair.peer.send(sent); });

  EXPECT_TRUE(wait_until([&] { return drainer.size() >= sent.size(); }));
  sender.join();
  EXPECT_TRUE(drainer.taken == sent);
}

// The pointer is read again and again while the I/O thread grows the buffer.
TEST_F(TcpHandle, PeekedBytesStayWhileMoreArrives) {
  TcpPair pair;
  pair.watch();
  pair.peer.send("the first bytes");
  ASSERT_TRUE(pair.wait_for_size(15));
  const char* const peeked = tarn_peek(pair.io);

  for (int size = 15; size < 3'000'000; size = tarn_peek_size(pair.io)) {
    ASSERT_TRUE(pair.peer.send(numbered(100'000)));
    ASSERT_TRUE(pair.wait_for_size(size + 100'000));
    ASSERT_EQ(std::string(peeked, 15), "the first bytes");
  }

  EXPECT_EQ(std::string(tarn_peek(pair.io), 15), "the first bytes");
}

TEST_F(TcpHandle, AnotherThreadTakesTheStreamWhileItArrives) {
  TcpPair pair;
  pair.watch();
  const std::string sent = numbered(3'000'000);
  std::thread sender([&] { pair.peer.send(sent); });

  std::string taken;
  const bool all = wait_until([&] {
    const int size = tarn_peek_size(pair.io);
    const char* const bytes = tarn_peek(pair.io);
    taken.append(bytes, static_cast<size_t>(size));
    tarn_consume(pair.io, size);
    return taken.size() >= sent.size();
  });

  sender.join();
  EXPECT_TRUE(all);
  EXPECT_TRUE(taken == sent);
}

TEST_F(TcpHandle, EndOfTheStreamCallsReadableOnceWithNothingNew) {
  TcpPair pair;
  pair.watch();
  pair.peer.send("last");
  ASSERT_TRUE(pair.readable.wait_for(1));

  pair.peer.close();

  ASSERT_TRUE(pair.readable.wait_for(2));
  for (int i = 0; i < 20; ++i) io_thread_pass();
  EXPECT_EQ(pair.readable.count(), 2);
  EXPECT_EQ(pair.buffered(), "last");
}

TEST_F(TcpHandle, EndOfTheStreamThatNobodyReadsDoesNotSpin) {
  TcpPair pair;
  pair.watch();
  pair.peer.close();
  ASSERT_TRUE(pair.readable.wait_for(1));

  const double before = process_cpu_seconds();
  EXPECT_FALSE(pair.listener.is_readable(300));
  EXPECT_LT(process_cpu_seconds() - before, 0.1);
}

TEST_F(TcpHandle, EndOfTheStreamWithoutAReadableCallbackDoesNotSpin) {
  TcpPair pair;
  tarn_set_readable_callback(pair.io, nullptr, nullptr);
  pair.peer.close();
  io_thread_pass();

  const double before = process_cpu_seconds();
  EXPECT_FALSE(pair.listener.is_readable(300));
  EXPECT_LT(process_cpu_seconds() - before, 0.1);
}

TEST_F(TcpHandle, WritingToAGonePeerFailsWithoutASignal) {
  TcpPair pair;
  pair.peer.reset();

  EXPECT_TRUE(wait_until([&] { return tarn_write(pair.io, "x", 1) < 0; }));
  EXPECT_EQ(tarn_write(pair.io, "x", 1), -1);
}

TEST_F(TcpHandle, WritingMoreThanTheSocketTakesReturnsWhatWasTakenAndThenMinus1) {
  TcpPair pair;
  const std::string block(1'000'000, 'x');
  const LogCapture log(1);

  long total = 0;
  int result = 0;
  while ((result = tarn_write(pair.io, block.data(), 1'000'000)) > 0) total += result;

  EXPECT_EQ(result, -1);
  EXPECT_GT(total, 0);
  EXPECT_EQ(log.count_containing(text("send failed error = %d", EAGAIN)), 1);
}

TEST_F(TcpHandle, ConsumingMoreThanBufferedAborts) {
  EXPECT_ABORT(
      {
        tarn_init();
        const TcpPair pair;
        tarn_consume(pair.io, 1);
      },
      quoted_regex("assertion \"len <= readable_bytes()\" failed"));
}

TEST_F(TcpHandle, ReadAborts) {
  EXPECT_ABORT(
      {
        char buffer[4];
        tarn_read(tarn_create_tcp_io(kLoopback, free_port()), buffer, 4);
      },
      quoted_regex("assertion \"protocol_ == UDP\" failed"));
}

TEST_F(TcpHandle, PeekOfAUdpHandleAborts) {
  EXPECT_ABORT(tarn_peek(tarn_create_udp_io(kLoopback, 9, 0)),
               quoted_regex("assertion \"protocol_ == TCP\" failed"));
}

TEST_F(TcpHandle, ConsumeOfAUdpHandleAborts) {
  EXPECT_ABORT(tarn_consume(tarn_create_udp_io(kLoopback, 9, 0), 0),
               quoted_regex("assertion \"protocol_ == TCP\" failed"));
}
