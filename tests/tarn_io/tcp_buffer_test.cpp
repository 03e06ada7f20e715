// TcpBuffer: indexes, consuming, making room.
#include "tarn_io/tcp_buffer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "tests/support/kit_death.h"

namespace {

constexpr char kSource[] = "tarn_io/tcp_buffer";

std::string text_of(size_t size) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + i % 23);
  return text;
}

void append(TcpBuffer& buffer, const std::string& text) { buffer.append(text.data(), text.size()); }

std::string unread(TcpBuffer& buffer) {
  return std::string(buffer.peek(), buffer.readable_bytes());
}

size_t capacity(const TcpBuffer& buffer) {
  return buffer.prependable_bytes() + buffer.readable_bytes() + buffer.writeable_bytes();
}

}  // namespace

TEST(TcpBuffer, IsEmptyWithRoomFor1024BytesWhenFresh) {
  TcpBuffer buffer;

  EXPECT_EQ(buffer.readable_bytes(), 0u);
  EXPECT_EQ(buffer.writeable_bytes(), 1024u);
  EXPECT_EQ(buffer.prependable_bytes(), 0u);
  EXPECT_EQ(std::string(buffer.begin(), 1024), std::string(1024, '\0'));
}

TEST(TcpBuffer, StartsReadingAndWritingAtTheBeginning) {
  TcpBuffer buffer;

  EXPECT_EQ(buffer.peek(), buffer.begin());
  EXPECT_EQ(buffer.begin_write(), buffer.begin());
}

TEST(TcpBuffer, AppendsAtTheEndOfWhatIsUnread) {
  TcpBuffer buffer;

  append(buffer, "abc");
  append(buffer, "de");

  EXPECT_EQ(unread(buffer), "abcde");
  EXPECT_EQ(buffer.writeable_bytes(), 1019u);
}

TEST(TcpBuffer, TakesAnEmptyAppendWithoutData) {
  TcpBuffer buffer;

  buffer.append(nullptr, 0);

  EXPECT_EQ(buffer.readable_bytes(), 0u);
}

TEST(TcpBuffer, CountsBytesWrittenInPlace) {
  TcpBuffer buffer;
  buffer.begin_write()[0] = 'x';
  buffer.begin_write()[1] = 'y';

  buffer.has_written(2);

  EXPECT_EQ(unread(buffer), "xy");
}

TEST(TcpBuffer, ConsumesFromTheFront) {
  TcpBuffer buffer;
  append(buffer, "abcde");

  buffer.retrieve(2);

  EXPECT_EQ(unread(buffer), "cde");
  EXPECT_EQ(buffer.prependable_bytes(), 2u);
}

TEST(TcpBuffer, KeepsItsIndexesWhenEverythingWasConsumed) {
  TcpBuffer buffer;
  append(buffer, "abcde");

  buffer.retrieve(5);

  EXPECT_EQ(buffer.readable_bytes(), 0u);
  EXPECT_EQ(buffer.prependable_bytes(), 5u);
  EXPECT_EQ(buffer.writeable_bytes(), 1019u);
}

TEST(TcpBuffer, GoesBackToTheBeginningWhenAllIsDropped) {
  TcpBuffer buffer;
  append(buffer, "abcde");
  buffer.retrieve(1);

  buffer.retrieve_all();

  EXPECT_EQ(buffer.readable_bytes(), 0u);
  EXPECT_EQ(buffer.prependable_bytes(), 0u);
  EXPECT_EQ(buffer.writeable_bytes(), 1024u);
}

TEST(TcpBuffer, AbortsWhenMoreIsConsumedThanItHolds) {
  TcpBuffer buffer;
  append(buffer, "abc");

  EXPECT_ABORT(buffer.retrieve(4),
               tarn_test::assertion_without_line(kSource, "retrieve", "len <= readable_bytes()"));
}

TEST(TcpBuffer, MovesWhatIsUnreadToTheFrontBeforeItGrows) {
  TcpBuffer buffer;
  const std::string text = text_of(1000);
  append(buffer, text);
  buffer.retrieve(600);

  buffer.make_space(500);

  EXPECT_EQ(buffer.prependable_bytes(), 0u);
  EXPECT_EQ(unread(buffer), text.substr(600));
  EXPECT_EQ(buffer.writeable_bytes(), 624u);
}

TEST(TcpBuffer, MovesASingleUnreadByteToo) {
  TcpBuffer buffer;
  append(buffer, text_of(1023));
  append(buffer, "z");
  buffer.retrieve(1023);

  buffer.make_space(1000);

  EXPECT_EQ(buffer.prependable_bytes(), 0u);
  EXPECT_EQ(unread(buffer), "z");
}

TEST(TcpBuffer, StillMovesWhenTheRoomIsJustEnough) {
  TcpBuffer buffer;
  append(buffer, text_of(1000));
  buffer.retrieve(600);

  buffer.make_space(624);

  EXPECT_EQ(capacity(buffer), 1024u);
  EXPECT_EQ(buffer.writeable_bytes(), 624u);
}

TEST(TcpBuffer, GrowsInPlaceWhenMovingIsNotEnough) {
  TcpBuffer buffer;
  const std::string text = text_of(1000);
  append(buffer, text);
  buffer.retrieve(600);

  buffer.make_space(625);

  EXPECT_EQ(buffer.prependable_bytes(), 600u);
  EXPECT_EQ(unread(buffer), text.substr(600));
  EXPECT_EQ(buffer.writeable_bytes(), 625u);
  EXPECT_EQ(std::string(buffer.begin_write(), 625), std::string(625, '\0'));
}

TEST(TcpBuffer, ReclaimsTheFrontWhenNothingIsUnread) {
  TcpBuffer buffer;
  append(buffer, text_of(1024));
  buffer.retrieve(1024);

  buffer.ensure_writeable_bytes(1);

  EXPECT_EQ(buffer.prependable_bytes(), 0u);
  EXPECT_EQ(buffer.writeable_bytes(), 1024u);
}

TEST(TcpBuffer, LeavesEverythingInPlaceWhenThereIsRoom) {
  TcpBuffer buffer;
  append(buffer, "abcde");
  buffer.retrieve(2);

  buffer.ensure_writeable_bytes(1019);

  EXPECT_EQ(buffer.prependable_bytes(), 2u);
  EXPECT_EQ(capacity(buffer), 1024u);
}

TEST(TcpBuffer, GrowsByAppending) {
  TcpBuffer buffer;
  const std::string text = text_of(3000);

  append(buffer, text);

  EXPECT_EQ(unread(buffer), text);
  EXPECT_EQ(buffer.writeable_bytes(), 0u);
}

TEST(TcpBuffer, IsCopiedWithItsBytes) {
  TcpBuffer original;
  append(original, "abc");

  TcpBuffer copy = original;
  original.peek()[0] = 'z';

  EXPECT_EQ(unread(copy), "abc");
}
