// Handles that serve a session: its input, its output, and who carries what.
#include <sys/socket.h>

#include "tarn/io.h"
#include "tests/support/kit_death.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

using Attach = SocketFixture;

std::string string_of(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

std::string message(const std::string& text) {
  return string_of(datagram({unreliable(bytes_of(text))}));
}

bool wait_for(const DatagramRecorder& recorder, size_t count) {
  return wait_until([&] { return recorder.count() >= count; });
}

}  // namespace

TEST_F(Attach, DatagramsFromTheSocketReachTheSession) {
  Endpoint session;
  const UdpPair pair;
  tarn_attach_io(session.handle(), pair.io);

  pair.send(message("from the wire"));

  ASSERT_TRUE(wait_for(session.unreliable_received, 1));
  EXPECT_EQ(session.unreliable_received.last(), bytes_of("from the wire"));
  EXPECT_NE(session.unreliable_received.last_thread(), std::this_thread::get_id());
}

TEST_F(Attach, SessionOutputGoesOutOnTheSocketAndNoLongerToTheCallback) {
  Endpoint session;
  const UdpPair pair;
  tarn_attach_io(session.handle(), pair.io);

  session.send_unreliable("to the wire");

  EXPECT_EQ(pair.peer.receive(), message("to the wire"));
  EXPECT_EQ(session.sent.count(), 0u);
}

TEST_F(Attach, DatagramsThatWaitedInTheSocketReachTheSession) {
  Endpoint session;
  const UdpPair pair;
  pair.send(message("one"));
  pair.send(message("two"));
  ASSERT_TRUE(wait_until([&] { return tarn_peek_size(pair.io) > 0; }));

  tarn_attach_io(session.handle(), pair.io);

  ASSERT_TRUE(wait_for(session.unreliable_received, 2));
  EXPECT_EQ(session.unreliable_received.at(0), bytes_of("one"));
  EXPECT_EQ(session.unreliable_received.at(1), bytes_of("two"));
}

TEST_F(Attach, LastHandleAttachedCarriesTheOutput) {
  Endpoint session;
  const UdpPair first;
  const UdpPair last;
  tarn_attach_io(session.handle(), first.io);
  tarn_attach_io(session.handle(), last.io);

  session.send_unreliable("x");

  EXPECT_EQ(last.peer.receive(), message("x"));
  EXPECT_FALSE(first.peer.is_readable(0));
}

TEST_F(Attach, EarlierHandlesKeepFeedingTheSession) {
  Endpoint session;
  const UdpPair first;
  const UdpPair last;
  tarn_attach_io(session.handle(), first.io);
  tarn_attach_io(session.handle(), last.io);

  first.send(message("by the first"));
  ASSERT_TRUE(wait_for(session.unreliable_received, 1));
  last.send(message("by the last"));
  ASSERT_TRUE(wait_for(session.unreliable_received, 2));

  EXPECT_EQ(session.unreliable_received.at(0), bytes_of("by the first"));
  EXPECT_EQ(session.unreliable_received.at(1), bytes_of("by the last"));
}

TEST_F(Attach, OutputStaysWithTheLastHandleAfterItIsDestroyed) {
  Endpoint session;
  const UdpPair first;
  const UdpPair last;
  tarn_attach_io(session.handle(), first.io);
  tarn_attach_io(session.handle(), last.io);
  tarn_destroy_io(last.io);

  session.send_unreliable("lost");
  io_thread_pass();

  EXPECT_FALSE(first.peer.is_readable(0));
  first.send(message("still fed"));
  EXPECT_TRUE(wait_for(session.unreliable_received, 1));
}

TEST_F(Attach, HandleAttachedToAnotherSessionFeedsThatOne) {
  Endpoint before;
  Endpoint after;
  const UdpPair pair;
  tarn_attach_io(before.handle(), pair.io);
  tarn_attach_io(after.handle(), pair.io);

  pair.send(message("x"));

  ASSERT_TRUE(wait_for(after.unreliable_received, 1));
  EXPECT_EQ(before.unreliable_received.count(), 0u);
}

TEST_F(Attach, DatagramIsCutTo1500Bytes) {
  Endpoint session;
  const UdpPair pair;
  tarn_attach_io(session.handle(), pair.io);
  const Bytes fits = datagram({unreliable(pattern(1000)), unreliable(pattern(492, 1))});
  ASSERT_EQ(fits.size(), 1500u);
  const LogCapture log(5);

  pair.send(string_of(concat({fits, unreliable(pattern(100, 2))})));
  pair.send(message("next"));

  ASSERT_TRUE(wait_for(session.unreliable_received, 3));
  EXPECT_EQ(session.unreliable_received.at(0), pattern(1000));
  EXPECT_EQ(session.unreliable_received.at(1), pattern(492, 1));
  EXPECT_EQ(session.unreliable_received.at(2), bytes_of("next"));
  EXPECT_EQ(log.count_containing(text("tarn %p input len 1500", session.handle())), 1);
}

TEST_F(Attach, EachEventTakesOneDatagram) {
  Endpoint one;
  Endpoint two;
  const UdpPair first;
  const UdpPair second;
  for (int i = 0; i < 3; ++i) first.send(message("x"));
  for (int i = 0; i < 3; ++i) second.send(message("x"));
  const LogCapture log(5);

  tarn_attach_io(one.handle(), first.io);
  tarn_attach_io(two.handle(), second.io);

  ASSERT_TRUE(wait_for(one.unreliable_received, 3));
  ASSERT_TRUE(wait_for(two.unreliable_received, 3));
  EXPECT_EQ(log.count_containing(text("tarn %p input len ", one.handle())), 3);
  EXPECT_EQ(log.count_containing(text("tarn %p input len ", two.handle())), 3);
}

TEST_F(Attach, EmptyDatagramIsNotPassedOn) {
  Endpoint session;
  const UdpPair pair;
  tarn_attach_io(session.handle(), pair.io);
  const LogCapture log(5);

  pair.send("");
  pair.send(message("x"));

  ASSERT_TRUE(wait_for(session.unreliable_received, 1));
  EXPECT_EQ(log.count_containing(text("tarn %p input len ", session.handle())), 1);
}

TEST_F(Attach, DeadSessionIsLoggedAndChangesNothing) {
  Endpoint gone;
  void* const handle = gone.handle();
  Endpoint session;  // before the other one goes, whose address it could get
  gone.destroy();
  const UdpPair pair;
  tarn_attach_io(session.handle(), pair.io);
  const LogCapture log(2);

  tarn_attach_io(handle, pair.io);

  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.count(2, text("tarn_attach_io fail,bad tarn %p", handle)), 1);
  pair.send(message("x"));
  EXPECT_TRUE(wait_for(session.unreliable_received, 1));
}

TEST_F(Attach, NullSessionIsLogged) {
  const UdpPair pair;
  const LogCapture log(2);

  tarn_attach_io(nullptr, pair.io);

  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].level, 2);
}

TEST_F(Attach, DatagramForASessionThatHasGoneIsLoggedAndDropped) {
  Endpoint session;
  const UdpPair pair;
  tarn_attach_io(session.handle(), pair.io);
  void* const handle = session.handle();
  session.destroy();
  const LogCapture log(2);

  pair.send(message("late"));

  EXPECT_TRUE(log.wait_for(text("tarn_input fail,bad tarn %p", handle)));
}

TEST_F(Attach, RememberedDatagramGoesToTheSessionAttachedBefore) {
  Endpoint before;
  Endpoint after;
  const UdpPair pair;
  tarn_attach_io(before.handle(), pair.io);
  tarn_set_readable_callback(pair.io, nullptr, nullptr);
  pair.send(message("remembered"));
  ASSERT_TRUE(wait_until([&] { return tarn_peek_size(pair.io) > 0; }));
  io_thread_pass();

  tarn_attach_io(after.handle(), pair.io);

  ASSERT_TRUE(wait_until(
      [&] { return before.unreliable_received.count() + after.unreliable_received.count() > 0; }));
  pair.send(message("next"));
  ASSERT_TRUE(wait_for(after.unreliable_received, 1));
  EXPECT_EQ(after.unreliable_received.last(), bytes_of("next"));
}

TEST_F(Attach, ATcpHandleAbortsWhenItsStreamIsReadable) {
  EXPECT_ABORT(
      {
        tarn_init();
        PlainSocket listener = PlainSocket::tcp_listener();
        void* const io = tarn_create_tcp_io(kLoopback, listener.port());
        PlainSocket peer = listener.accept();
        tarn_attach_io(tarn_create(), io);
        peer.send("x");
        peer.receive();
      },
      quoted_regex("assertion \"protocol_ == UDP\" failed"));
}

TEST_F(Attach, RandomDatagramsHarmNothing) {
  Endpoint session;
  const UdpPair pair;
  tarn_attach_io(session.handle(), pair.io);
  unsigned state = 12345;
  const auto next = [&state] { return state = state * 1103515245 + 12345; };

  for (int i = 0; i < 50000; ++i) {
    std::string bytes((next() >> 16) % (i % 100 == 0 ? 2000 : 40), '\0');
    for (char& byte : bytes) byte = static_cast<char>(next() >> 16);
    // Half of them look like the protocol's, so that they get past the first bytes.
    if (i % 2 == 0 && bytes.size() > 2) bytes.replace(0, 2, std::string("$\0", 2));
    pair.send(bytes);
  }

  EXPECT_TRUE(wait_until([&] {
    pair.send(message("after"));
    io_thread_pass();
    const std::vector<Bytes> all = session.unreliable_received.all();
    return !all.empty() && all.back() == bytes_of("after");
  }));
}

TEST_F(Attach, TwoSessionsExchangeThousandsOfMessages) {
  constexpr size_t kCount = 5000;
  const unsigned short ports[] = {free_port(), free_port()};
  Endpoint a;
  Endpoint b;
  void* const a_io = tarn_create_udp_io(kLoopback, ports[1], ports[0]);
  void* const b_io = tarn_create_udp_io(kLoopback, ports[0], ports[1]);
  tarn_attach_io(a.handle(), a_io);
  tarn_attach_io(b.handle(), b_io);

  // At most 8 outstanding each way, of two segments at the most, so that the window never fills.
  for (size_t i = 0; i < kCount; ++i) {
    const Bytes payload = pattern(1 + i * 7 % 2000, static_cast<unsigned>(i));
    a.send(payload);
    b.send(payload);
    ASSERT_TRUE(wait_until([&] {
      return b.reliable_received.count() + 8 > i && a.reliable_received.count() + 8 > i;
    })) << i;
  }

  ASSERT_TRUE(wait_for(a.reliable_received, kCount));
  ASSERT_TRUE(wait_for(b.reliable_received, kCount));
  for (size_t i = 0; i < kCount; ++i) {
    const Bytes expected = pattern(1 + i * 7 % 2000, static_cast<unsigned>(i));
    ASSERT_EQ(a.reliable_received.at(i), expected) << i;
    ASSERT_EQ(b.reliable_received.at(i), expected) << i;
  }
  tarn_destroy_io(a_io);
  tarn_destroy_io(b_io);
}
