// The three callbacks of a handle: when they run, on which thread, and what is remembered for them.
#include <sys/socket.h>

#include "tarn/io.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

// What a callback refers to is declared before the handle: destroying that ends its events.
using Events = SocketFixture;

// Sets its own callback again from inside, which the end of the callback undoes.
struct Rearming {
  static void on_writeable(void* rearming) {
    auto* const self = static_cast<Rearming*>(rearming);
    if (self->calls.count() < 3) tarn_set_writeable_callback(self->io, on_writeable, self);
    EventCounter::on_event(&self->calls);
  }

  void* io;
  EventCounter calls;
};

// Reads the one datagram, then takes a null callback so that the next events are remembered.
void nobody_reads(const UdpPair& pair) {
  tarn_set_readable_callback(pair.io, nullptr, nullptr);
  pair.send("early");
  EXPECT_TRUE(wait_until([&] { return tarn_peek_size(pair.io) == 5; }));
  io_thread_pass();
  char buffer[8];
  EXPECT_EQ(tarn_read(pair.io, buffer, 8), 5);
  // The last event that the datagram caused is over now.
  io_thread_pass();
}

}  // namespace

TEST_F(Events, CallbackGetsItsArgument) {
  EventCounter readable;
  EventCounter other;
  const UdpPair pair;
  tarn_set_readable_callback(pair.io, EventCounter::on_event, &other);
  tarn_set_readable_callback(pair.io, EventCounter::on_event, &readable);

  pair.send("x");

  EXPECT_TRUE(readable.wait_for(1));
  EXPECT_EQ(other.count(), 0);
}

TEST_F(Events, WriteableIsToldOncePerWatch) {
  EventCounter writeable;
  const UdpPair pair;
  tarn_set_writeable_callback(pair.io, EventCounter::on_event, &writeable);
  ASSERT_TRUE(writeable.wait_for(1));

  for (int i = 0; i < 10; ++i) io_thread_pass();

  EXPECT_EQ(writeable.count(), 1);
  EXPECT_NE(writeable.thread(), std::this_thread::get_id());
}

TEST_F(Events, WriteableIsToldAgainWhenItIsSetAgain) {
  EventCounter writeable;
  const UdpPair pair;

  for (int i = 1; i <= 50; ++i) {
    tarn_set_writeable_callback(pair.io, EventCounter::on_event, &writeable);
    ASSERT_TRUE(writeable.wait_for(i));
    io_thread_pass();  // a watch set while the callback returns would be undone
    ASSERT_EQ(writeable.count(), i);
  }
}

TEST_F(Events, WriteableSetAgainInsideItsCallbackIsUndone) {
  Rearming rearming;
  const UdpPair pair;
  rearming.io = pair.io;
  tarn_set_writeable_callback(pair.io, Rearming::on_writeable, &rearming);
  ASSERT_TRUE(rearming.calls.wait_for(1));

  for (int i = 0; i < 10; ++i) io_thread_pass();

  EXPECT_EQ(rearming.calls.count(), 1);
}

TEST_F(Events, ReadableBeforeItsCallbackIsToldOnceOnTheSettingThread) {
  EventCounter readable;
  const UdpPair pair;
  nobody_reads(pair);

  tarn_set_readable_callback(pair.io, EventCounter::on_event, &readable);

  EXPECT_EQ(readable.count(), 1);
  EXPECT_EQ(readable.thread(), std::this_thread::get_id());
  tarn_set_readable_callback(pair.io, EventCounter::on_event, &readable);
  io_thread_pass();
  EXPECT_EQ(readable.count(), 1);
}

TEST_F(Events, ReadableThatWasRememberedOutlivesANullCallback) {
  EventCounter readable;
  const UdpPair pair;
  nobody_reads(pair);

  tarn_set_readable_callback(pair.io, nullptr, nullptr);
  tarn_set_readable_callback(pair.io, EventCounter::on_event, &readable);

  EXPECT_EQ(readable.count(), 1);
}

TEST_F(Events, DatagramBeforeAnythingIsSetIsReportedByTheIoThread) {
  EventCounter readable;
  const UdpPair pair;
  pair.send("x");
  ASSERT_TRUE(wait_until([&] { return tarn_peek_size(pair.io) == 1; }));

  tarn_set_readable_callback(pair.io, EventCounter::on_event, &readable);

  ASSERT_TRUE(readable.wait_for(1));
  EXPECT_NE(readable.thread(), std::this_thread::get_id()) << "an unwatched handle has no events";
}

TEST_F(Events, WriteableBeforeItsCallbackIsToldOnceOnTheSettingThread) {
  EventCounter writeable;
  const UdpPair pair;
  tarn_set_writeable_callback(pair.io, nullptr, nullptr);
  io_thread_pass();
  tarn_set_writeable_callback(pair.io, nullptr, nullptr);
  // One pass files the watch, the next one has its event.
  io_thread_pass();
  io_thread_pass();

  tarn_set_writeable_callback(pair.io, EventCounter::on_event, &writeable);
  ASSERT_GE(writeable.count(), 1) << "before the call returns";

  // The setter has armed the watch again, so the I/O thread tells a second one.
  EXPECT_TRUE(writeable.wait_for(2));
  io_thread_pass();
  EXPECT_EQ(writeable.count(), 2);
}

TEST_F(Events, ErrorCallbackComesAgainUntilTheHandleIsDestroyed) {
  void* const io = tarn_create_tcp_io(kLoopback, free_port());
  EventCounter errors;
  tarn_set_io_error_callback(io, EventCounter::on_error, &errors);
  ASSERT_TRUE(errors.wait_for(5));

  tarn_destroy_io(io);
  const int count = errors.count();
  io_thread_pass();

  EXPECT_EQ(errors.count(), count);
}

TEST_F(Events, ErrorIsNotToldWhenThereIsNone) {
  EventCounter errors;
  const UdpPair pair;
  tarn_set_io_error_callback(pair.io, EventCounter::on_error, &errors);
  pair.send("x");

  io_thread_pass();

  EXPECT_EQ(errors.count(), 0);
}

TEST_F(Events, HangUpOfATcpPeerIsAnError) {
  PlainSocket listener = PlainSocket::tcp_listener();
  void* const io = tarn_create_tcp_io(kLoopback, listener.port());
  PlainSocket peer = listener.accept();
  EventCounter errors;
  tarn_set_io_error_callback(io, EventCounter::on_error, &errors);

  peer.reset();

  EXPECT_TRUE(errors.wait_for(1));
  tarn_destroy_io(io);
}

TEST_F(Events, WithoutAnErrorCallbackAHangUpDoesNotSpin) {
  PlainSocket listener = PlainSocket::tcp_listener();
  void* const io = tarn_create_tcp_io(kLoopback, listener.port());
  PlainSocket peer = listener.accept();
  EventCounter readable;
  tarn_set_readable_callback(io, EventCounter::on_event, &readable);
  tarn_set_io_error_callback(io, nullptr, nullptr);
  peer.reset();
  ASSERT_TRUE(readable.wait_for(1));
  const double before = process_cpu_seconds();

  EXPECT_FALSE(listener.is_readable(300));

  EXPECT_LT(process_cpu_seconds() - before, 0.1);
  tarn_destroy_io(io);
}

// The I/O thread reads the pair while it is replaced: a callback never gets another one's argument.
TEST_F(Events, CallbackAndArgumentAreReadAsAPair) {
  struct Tagged {
    static void on_one(void* tagged) { check(tagged, 1); }
    static void on_two(void* tagged) { check(tagged, 2); }
    static void check(void* tagged, int tag) {
      auto* const self = static_cast<Tagged*>(tagged);
      if (self->tag != tag) ++mixed();
      EventCounter::on_event(&self->calls);
    }
    static std::atomic<int>& mixed() {
      static std::atomic<int> count{0};
      return count;
    }
    int tag;
    EventCounter calls;
  };
  Tagged one{1, {}};
  Tagged two{2, {}};
  const UdpPair pair;
  pair.send("never read, so readable for ever");

  EXPECT_TRUE(wait_until([&] {
    tarn_set_readable_callback(pair.io, Tagged::on_one, &one);
    tarn_set_readable_callback(pair.io, Tagged::on_two, &two);
    return one.calls.count() > 50 && two.calls.count() > 50;
  }));

  tarn_set_readable_callback(pair.io, nullptr, nullptr);
  EXPECT_EQ(Tagged::mixed(), 0);
}
