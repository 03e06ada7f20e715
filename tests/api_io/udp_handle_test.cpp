// A UDP handle that serves the application: reading, writing, asking for the size.
#include <sys/socket.h>

#include "tarn/io.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

using UdpHandle = SocketFixture;

std::string read_from(void* io, int len = 65536) {
  std::string bytes(65536, '\0');
  const int count = tarn_read(io, &bytes[0], len);
  bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
  return bytes;
}

bool wait_for_size(void* io, int size) {
  return wait_until([=] { return tarn_peek_size(io) == size; });
}

}  // namespace

TEST_F(UdpHandle, WriteSendsOneDatagramAndReturnsItsSize) {
  const PlainSocket peer = PlainSocket::udp();
  void* const io = tarn_create_udp_io(kLoopback, peer.port(), 0);

  EXPECT_EQ(tarn_write(io, "datagram", 8), 8);

  EXPECT_EQ(peer.receive(), "datagram");
  tarn_destroy_io(io);
}

TEST_F(UdpHandle, WriteOfNothingSendsAnEmptyDatagram) {
  const UdpPair pair;

  EXPECT_EQ(tarn_write(pair.io, nullptr, 0), 0);
  EXPECT_EQ(tarn_write(pair.io, "x", -1), 0);

  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(pair.peer.is_readable(10000));
    EXPECT_EQ(pair.peer.receive(), "");
  }
}

TEST_F(UdpHandle, ReadTakesOneDatagramAndReturnsItsSize) {
  const UdpPair pair;
  pair.send("first");
  pair.send("second one");
  ASSERT_TRUE(wait_for_size(pair.io, 5));

  EXPECT_EQ(read_from(pair.io), "first");
  EXPECT_EQ(read_from(pair.io), "second one");
}

TEST_F(UdpHandle, ReadCutsADatagramToTheLengthAsked) {
  const UdpPair pair;
  pair.send("0123456789");
  pair.send("next");
  ASSERT_TRUE(wait_for_size(pair.io, 10));

  EXPECT_EQ(read_from(pair.io, 4), "0123");
  EXPECT_EQ(read_from(pair.io), "next");
}

TEST_F(UdpHandle, ReadReturnsMinus1WithoutADatagramAndDoesNotBlock) {
  const UdpPair pair;
  char buffer[8];

  EXPECT_EQ(tarn_read(pair.io, buffer, sizeof buffer), -1);
}

TEST_F(UdpHandle, PeekSizeIsThatOfTheNextDatagramAndTakesNothing) {
  const UdpPair pair;
  EXPECT_EQ(tarn_peek_size(pair.io), 0);
  pair.send("0123456");
  pair.send("89");

  ASSERT_TRUE(wait_for_size(pair.io, 7));
  EXPECT_EQ(tarn_peek_size(pair.io), 7);
  EXPECT_EQ(read_from(pair.io), "0123456");
  EXPECT_TRUE(wait_for_size(pair.io, 2));
}

TEST_F(UdpHandle, DatagramStaysInTheKernelUntilTheApplicationReads) {
  EventCounter readable;
  const UdpPair pair;
  tarn_set_readable_callback(pair.io, EventCounter::on_event, &readable);
  pair.send("stays");

  ASSERT_TRUE(readable.wait_for(3)) << "a readable event for as long as it is not read";
  EXPECT_EQ(tarn_peek_size(pair.io), 5);
  EXPECT_EQ(read_from(pair.io), "stays");
}

TEST_F(UdpHandle, ReadableCallbackRunsOnAnotherThreadThatIsAlwaysTheSame) {
  EventCounter first;
  EventCounter second;
  const UdpPair one;
  const UdpPair two;
  tarn_set_readable_callback(one.io, EventCounter::on_event, &first);
  tarn_set_readable_callback(two.io, EventCounter::on_event, &second);

  one.send("x");
  two.send("y");

  ASSERT_TRUE(first.wait_for(1));
  ASSERT_TRUE(second.wait_for(1));
  EXPECT_NE(first.thread(), std::this_thread::get_id());
  EXPECT_EQ(first.thread(), second.thread());
}

TEST_F(UdpHandle, SendsFromTheLocalPortAsked) {
  const PlainSocket peer = PlainSocket::udp();
  const unsigned short local = free_port();
  void* const io = tarn_create_udp_io(kLoopback, peer.port(), local);

  tarn_write(io, "x", 1);

  unsigned short from = 0;
  peer.receive_from(from);
  EXPECT_EQ(from, local);
  tarn_destroy_io(io);
}

TEST_F(UdpHandle, TakesPortsAbove32767) {
  unsigned short port = 40000;
  PlainSocket peer = PlainSocket::udp(port);
  while (peer.fd() < 0) peer = PlainSocket::udp(++port);
  void* const io = tarn_create_udp_io(kLoopback, port, 0);

  tarn_write(io, "high", 4);

  EXPECT_EQ(peer.receive(), "high");
  tarn_destroy_io(io);
}

TEST_F(UdpHandle, BusyLocalPortIsLoggedAndTheHandleStillSends) {
  const PlainSocket peer = PlainSocket::udp();
  const PlainSocket holder = PlainSocket::udp();
  const LogCapture log(1);

  void* const io = tarn_create_udp_io(kLoopback, peer.port(), holder.port());

  ASSERT_NE(io, nullptr);
  EXPECT_EQ(log.count_containing(text("bind port %u failed error %d", holder.port(), EADDRINUSE)),
            1);
  EXPECT_EQ(tarn_write(io, "x", 1), 1);
  EXPECT_EQ(peer.receive(), "x");
  tarn_destroy_io(io);
}

TEST_F(UdpHandle, IsNeverNullWhateverTheAddress) {
  for (const char* address : {"::1", "not an address", ""}) {
    void* const io = tarn_create_udp_io(address, 9, 0);
    ASSERT_NE(io, nullptr) << address;
    tarn_destroy_io(io);
  }
}

TEST_F(UdpHandle, WriteWithoutAPeerIsLoggedAndReturnsMinus1) {
  void* const io = tarn_create_udp_io("::1", 9, 0);
  const LogCapture log(1);

  EXPECT_EQ(tarn_write(io, "x", 1), -1);

  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.count_containing(text("send failed error = %d", EDESTADDRREQ)), 1);
  tarn_destroy_io(io);
}

TEST_F(UdpHandle, DatagramsOfOtherSendersDoNotReachIt) {
  const UdpPair pair;
  const PlainSocket stranger = PlainSocket::udp();
  stranger.send_to(pair.io_port, "stranger");
  pair.send("peer");

  ASSERT_TRUE(wait_for_size(pair.io, 4));
  EXPECT_EQ(read_from(pair.io), "peer");
  EXPECT_EQ(read_from(pair.io), "");
}

TEST_F(UdpHandle, MadeFromADescriptorReadsAndWrites) {
  const PlainSocket peer = PlainSocket::udp();
  PlainSocket own = PlainSocket::udp();
  own.connect(peer.port());
  const unsigned short port = own.port();
  void* const io = tarn_create_io_from_fd(own.release());

  EXPECT_EQ(tarn_write(io, "out", 3), 3);
  EXPECT_EQ(peer.receive(), "out");
  peer.send_to(port, "in");
  ASSERT_TRUE(wait_for_size(io, 2));
  EXPECT_EQ(read_from(io), "in");
  EXPECT_EQ(read_from(io), "") << "the descriptor is non-blocking now";
  tarn_destroy_io(io);
}

TEST_F(UdpHandle, AGonePeerNeitherEndsTheProcessNorTheHandle) {
  PlainSocket peer = PlainSocket::udp();
  const unsigned short port = peer.port();
  void* const io = tarn_create_udp_io(kLoopback, port, 0);
  peer.close();
  EventCounter readable;
  tarn_set_readable_callback(io, EventCounter::on_event, &readable);

  for (int i = 0; i < 5; ++i) {
    tarn_write(io, "refused", 7);
    io_thread_pass();
  }

  const PlainSocket back = PlainSocket::udp(port);
  ASSERT_TRUE(wait_until([&] { return tarn_write(io, "again", 5) == 5; }));
  EXPECT_EQ(back.receive(), "again");
  tarn_destroy_io(io);
}
