// TcpBuffer: bytes that somebody looks at while more come in.
#include <gtest/gtest.h>

#include <string>

#include "tarn_io/tarn_io.h"
#include "tarn_io/tcp_buffer.h"
#include "tests/support/net_sockets.h"

namespace {

// Bytes that a buffer has moved: all that were unread whenever they are somewhere else afterwards.
class Moves {
 public:
  void note(const char* bytes, size_t unread) {
    if (bytes != last_) moved_ += last_unread_;
    last_ = bytes;
    last_unread_ = unread;
  }
  size_t count() const { return moved_; }

 private:
  const char* last_ = nullptr;
  size_t last_unread_ = 0;
  size_t moved_ = 0;
};

size_t size_of(const TcpBuffer& buffer) {
  return buffer.prependable_bytes() + buffer.readable_bytes() + buffer.writeable_bytes();
}

}  // namespace

TEST(TcpBufferHold, WhatIsHeldStaysThroughAllThatIsAppended) {
  TcpBuffer buffer;
  buffer.append("the first bytes", 15);
  const char* const held = buffer.hold();
  const std::string block(10'000, 'x');

  for (int i = 0; i < 50; ++i) buffer.append(block.data(), block.size());

  EXPECT_EQ(std::string(held, 15), "the first bytes");
  EXPECT_EQ(buffer.readable_bytes(), 15u + 50 * 10'000);
  EXPECT_EQ(std::string(buffer.peek(), 16), "the first bytesx");
}

TEST(TcpBufferHold, NothingMovesWhileTheTailHasRoom) {
  TcpBuffer buffer;
  buffer.append("held", 4);
  const char* const held = buffer.hold();

  buffer.append(std::string(1020, 'x').data(), 1020);

  EXPECT_EQ(buffer.peek(), held);
}

TEST(TcpBufferHold, RoomIsMadeElsewhereForAtLeastAsMuchAgainAsIsUnread) {
  TcpBuffer buffer;
  buffer.append(std::string(1024, 'x').data(), 1024);
  const char* const held = buffer.hold();

  buffer.append("y", 1);

  EXPECT_NE(buffer.peek(), held);
  EXPECT_EQ(buffer.prependable_bytes(), 0u);
  EXPECT_GE(buffer.writeable_bytes(), 1024u);
}

TEST(TcpBufferHold, ATakenByteEndsTheHold) {
  TcpBuffer buffer;
  buffer.append(std::string(1000, 'x').data(), 1000);
  buffer.hold();
  buffer.retrieve(600);

  buffer.append(std::string(500, 'y').data(), 500);

  EXPECT_EQ(size_of(buffer), 1024u) << "compacted instead of grown";
  EXPECT_EQ(buffer.prependable_bytes(), 0u);
}

TEST(TcpBufferHold, DroppingAllEndsTheHold) {
  TcpBuffer buffer;
  buffer.append(std::string(1000, 'x').data(), 1000);
  const char* const held = buffer.hold();
  buffer.retrieve_all();

  buffer.append(std::string(1024, 'y').data(), 1024);

  EXPECT_EQ(buffer.peek(), held);
}

TEST(TcpBufferHold, NothingUnreadIsNothingHeld) {
  TcpBuffer buffer;
  buffer.append(std::string(1000, 'x').data(), 1000);
  buffer.retrieve(1000);
  buffer.hold();

  buffer.append(std::string(500, 'y').data(), 500);

  EXPECT_EQ(size_of(buffer), 1024u);
}

// Its bytes are looked at after each one of 4,000 reads, and never taken.
TEST(TcpBufferHold, AStreamIsMovedOnceHoweverOftenItIsLookedAt) {
  constexpr size_t kBlock = 1000;
  const std::string block(kBlock, 'x');
  TcpBuffer buffer;
  Moves moves;

  for (int i = 0; i < 4000; ++i) {
    buffer.append(block.data(), block.size());
    moves.note(buffer.hold(), buffer.readable_bytes());
  }

  EXPECT_LE(moves.count(), 2 * buffer.readable_bytes());
}

// As by an application that waits for the rest of a message.
TEST(TcpBufferHold, WhoLeavesALittleAndLooksAgainMakesNothingGrow) {
  const std::string block(1500, 'x');
  TcpBuffer buffer;
  size_t copied = 0;

  for (int i = 0; i < 4000; ++i) {
    const char* const before = buffer.hold();
    const size_t unread = buffer.readable_bytes();
    buffer.append(block.data(), block.size());
    if (buffer.peek() != before) copied += unread;
    buffer.hold();
    buffer.retrieve(buffer.readable_bytes() - 100);
  }

  EXPECT_LE(size_of(buffer), 8192u);
  EXPECT_LE(copied, 4000u * 1500);
}

// By counting what moves between one look and the next, on a handle whose reads grow its buffer.
TEST(TarnIoStream, LookedAtInEachCallbackIsMovedOnce) {
  constexpr int kBlock = 40'000;
  const tarn_test::Ends ends = tarn_test::tcp_ends();
  TarnIo io{TarnSocket(ends.near.get(), TarnSocket::TCP)};
  const std::string block(kBlock, 'x');
  Moves moves;

  for (int sent = kBlock; sent <= 100 * kBlock; sent += kBlock) {
    tarn_test::send_text(ends.far.get(), block);
    while (io.peek_size() < sent) {
      ASSERT_TRUE(tarn_test::wait_readable(ends.near.get()));
      io.trigger_read();
      const char* const bytes = io.peek_data();
      moves.note(bytes, static_cast<size_t>(io.peek_size()));
    }
  }

  EXPECT_LE(moves.count(), size_t{2 * 100 * kBlock});
}
