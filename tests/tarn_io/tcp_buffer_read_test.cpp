// TcpBuffer: filling from a descriptor.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "tarn_io/tcp_buffer.h"
#include "tests/support/net_sockets.h"

using tarn_test::Ends;
using tarn_test::OwnedFd;

namespace {

std::string text_of(size_t size) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + i % 23);
  return text;
}

std::string unread(TcpBuffer& buffer) {
  return std::string(buffer.peek(), buffer.readable_bytes());
}

// A stream that holds `size` bytes at once, unlike a TCP connection.
Ends stream_with(const std::string& text) {
  int fds[2] = {-1, -1};
  socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
  Ends ends{OwnedFd(fds[0]), OwnedFd(fds[1])};
  const int room = 1 << 20;
  setsockopt(ends.far.get(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
  tarn_test::send_text(ends.far.get(), text);
  return ends;
}

}  // namespace

TEST(TcpBufferRead, PutsWhatFitsInPlace) {
  const Ends ends = stream_with("hello");
  TcpBuffer buffer;
  int error = 0;

  const int count = buffer.read_fd(ends.near.get(), &error);

  EXPECT_EQ(count, 5);
  EXPECT_EQ(unread(buffer), "hello");
  EXPECT_EQ(buffer.writeable_bytes(), 1019u);
}

TEST(TcpBufferRead, FillsTheTailExactlyWithoutGrowing) {
  const std::string text = text_of(1024);
  const Ends ends = stream_with(text);
  TcpBuffer buffer;
  int error = 0;

  buffer.read_fd(ends.near.get(), &error);

  EXPECT_EQ(unread(buffer), text);
  EXPECT_EQ(buffer.writeable_bytes(), 0u);
}

TEST(TcpBufferRead, GrowsByWhatReallyCame) {
  const std::string text = text_of(1500);
  const Ends ends = stream_with(text);
  TcpBuffer buffer;
  int error = 0;

  const int count = buffer.read_fd(ends.near.get(), &error);

  EXPECT_EQ(count, 1500);
  EXPECT_EQ(unread(buffer), text);
  EXPECT_EQ(buffer.writeable_bytes(), 0u);
}

TEST(TcpBufferRead, ReusesTheConsumedFrontForTheExcess) {
  const std::string text = text_of(600);
  const Ends ends = stream_with(text);
  TcpBuffer buffer;
  const std::string old = text_of(1000);
  buffer.append(old.data(), old.size());
  buffer.retrieve(990);
  int error = 0;

  buffer.read_fd(ends.near.get(), &error);

  EXPECT_EQ(unread(buffer), old.substr(990) + text);
  EXPECT_EQ(buffer.prependable_bytes(), 0u);
}

TEST(TcpBufferRead, TakesAtMostTheTailAnd64KiBAtOnce) {
  const std::string text = text_of(1024 + 65536 + 100);
  const Ends ends = stream_with(text);
  TcpBuffer buffer;
  int error = 0;

  const int first = buffer.read_fd(ends.near.get(), &error);
  const int second = buffer.read_fd(ends.near.get(), &error);

  EXPECT_EQ(first, 1024 + 65536);
  EXPECT_EQ(second, 100);
  EXPECT_EQ(unread(buffer), text);
}

TEST(TcpBufferRead, ReportsTheEndOfTheStreamAsNothing) {
  Ends ends = stream_with("");
  ends.far.reset();
  TcpBuffer buffer;
  int error = 7;
  errno = EBADF;

  EXPECT_EQ(buffer.read_fd(ends.near.get(), &error), 0);
  EXPECT_EQ(buffer.readable_bytes(), 0u);
  EXPECT_EQ(buffer.writeable_bytes(), 1024u);
  EXPECT_EQ(error, 7) << "the end of a stream is no error";
}

TEST(TcpBufferRead, GivesTheErrorAndChangesNothingOnFailure) {
  TcpBuffer buffer;
  buffer.append("abc", 3);
  int error = 0;

  EXPECT_EQ(buffer.read_fd(-1, &error), -1);

  EXPECT_EQ(error, EBADF);
  EXPECT_EQ(unread(buffer), "abc");
  EXPECT_EQ(buffer.writeable_bytes(), 1021u);
}
