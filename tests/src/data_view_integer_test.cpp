// DataView: integers at the front, patching, resizing, and everything that aborts.
#include <gtest/gtest.h>

#include <string>

#include "src/data_view.h"
#include "tests/support/kit_bytes.h"
#include "tests/support/kit_death.h"

using tarn_test::owned_view;
using tarn_test::text_of;

namespace {

constexpr char kSource[] = "src/data_view";

DataView two_blocks(const std::string& first, const std::string& second) {
  DataView view = owned_view(first);
  DataView other = owned_view(second);
  view.append(other);
  return view;
}

TEST(DataViewRead, TakesAnUnsignedByte) {
  DataView view = owned_view("\xff\x01");
  EXPECT_EQ(view.read_uint8(), 0xff);
  EXPECT_EQ(view.size(), 1u);
}

TEST(DataViewRead, TakesAChar) {
  DataView view = owned_view("ab");
  EXPECT_EQ(view.read_char(), 'a');
  EXPECT_EQ(view.size(), 1u);
}

TEST(DataViewRead, TakesTwoBytesBigEndian) {
  DataView view = owned_view("\x12\x34\x56");
  EXPECT_EQ(view.read_uint16(), 0x1234);
  EXPECT_EQ(view.size(), 1u);
}

TEST(DataViewRead, TakesFourBytesBigEndian) {
  DataView view = owned_view("\xfe\xdc\xba\x98\x76");
  EXPECT_EQ(view.read_uint32(), 0xfedcba98u);
  EXPECT_EQ(view.size(), 1u);
}

TEST(DataViewRead, MovesAlong) {
  DataView view = owned_view("\x01\x02\x03\x04\x05\x06\x07\x08");
  EXPECT_EQ(view.read_uint8(), 0x01);
  EXPECT_EQ(view.read_uint16(), 0x0203);
  EXPECT_EQ(view.read_uint32(), 0x04050607u);
  EXPECT_EQ(view.read_char(), 0x08);
  EXPECT_EQ(view.size(), 0u);
}

TEST(DataViewRead, ChecksTheWholeBlockNotWhatIsLeft) {
  DataView view = owned_view("\x01\x02");
  view.consume_front(1);
  EXPECT_EQ(view.read_uint8(), 0x02) << "one byte is left, but the block has two";
}

TEST(DataViewWrite, PutsTwoBytesBigEndian) {
  DataView view(4ul);
  view.write_uint16(1, 0x1234);
  EXPECT_EQ(text_of(view), std::string("\0\x12\x34\0", 4));
}

TEST(DataViewWrite, PutsFourBytesBigEndian) {
  DataView view(6ul);
  view.write_uint32(1, 0x12345678);
  EXPECT_EQ(text_of(view), std::string("\0\x12\x34\x56\x78\0", 6));
}

TEST(DataViewWrite, CountsFromTheStartOfTheBlock) {
  char bytes[] = "0123456789";
  DataView view(bytes, 10);
  view.consume_front(5);
  view.write_uint16(0, 0x4142);
  EXPECT_EQ(std::string(bytes), "AB23456789");
  EXPECT_EQ(text_of(view), "56789");
  view.write_uint32(1, 0x61626364);
  EXPECT_EQ(std::string(bytes), "Aabcd56789");
}

TEST(DataViewWrite, ReachesTheLastBytes) {
  DataView view(4ul);
  view.write_uint16(2, 0xffff);
  EXPECT_EQ(text_of(view), std::string("\0\0\xff\xff", 4));
  view.write_uint32(0, 0x01020304);
  EXPECT_EQ(text_of(view), "\x01\x02\x03\x04");
}

TEST(DataViewResize, ShrinksTheBlock) {
  DataView view = owned_view("abcdef");
  view.resize(4);
  EXPECT_EQ(text_of(view), "abcd");
}

TEST(DataViewResize, CountsFromTheStartOfTheBlock) {
  DataView view = owned_view("0123456789");
  view.consume_front(3);
  view.resize(6);
  EXPECT_EQ(text_of(view), "345");
}

TEST(DataViewResize, DisregardsWhatIsTrimmed) {
  DataView rest = owned_view("0123456789");
  DataView head = rest.slice(6);  // four bytes trimmed
  head.resize(8);
  EXPECT_EQ(text_of(head), "0123");
}

TEST(DataViewResize, ConcernsEveryViewOfTheBlock) {
  DataView view = owned_view("abcdef");
  const DataView copy = view;
  view.resize(2);
  EXPECT_EQ(text_of(copy), "ab");
}

void read_uint8_of(std::string text) { owned_view(text).read_uint8(); }
void read_char_of(std::string text) { owned_view(text).read_char(); }
void read_uint16_of(std::string text) { owned_view(text).read_uint16(); }
void read_uint32_of(std::string text) { owned_view(text).read_uint32(); }

TEST(DataViewDeathTest, NothingCanBeTakenFromAViewWithoutBlocks) {
  const std::string no_block =
      tarn_test::assertion_without_line("src/data_view", "front", "!empty()");
  EXPECT_ABORT(DataView().data(), no_block);
  EXPECT_ABORT(DataView().consume_front(0), no_block);
}

TEST(DataViewDeathTest, AByteNeedsABlockOfTwo) {
  EXPECT_ASSERTION(read_uint8_of("a"), kSource, 77, "read_uint8", "blocks_.front()->size() > 1");
}

TEST(DataViewDeathTest, ACharNeedsABlockOfTwo) {
  EXPECT_ASSERTION(read_char_of("a"), kSource, 85, "read_char", "blocks_.front()->size() > 1");
}

TEST(DataViewDeathTest, TwoBytesNeedABlockOfThree) {
  EXPECT_ASSERTION(read_uint16_of("ab"), kSource, 93, "read_uint16", "blocks_.front()->size() > 2");
}

TEST(DataViewDeathTest, FourBytesNeedABlockOfFive) {
  EXPECT_ASSERTION(read_uint32_of("abcd"), kSource, 101, "read_uint32",
                   "blocks_.front()->size() > 4");
}

constexpr char kConsumeCheck[] = "blocks_.front()->size() >= offset_ + len";

TEST(DataViewDeathTest, ConsumeStopsAtTheEndOfTheBlock) {
  EXPECT_ASSERTION(owned_view("abc").consume_front(4), kSource, 123, "consume_front",
                   kConsumeCheck);
}

TEST(DataViewDeathTest, ConsumeCountsWhatWasConsumed) {
  DataView view = owned_view("abc");
  view.consume_front(2);
  EXPECT_ASSERTION(view.consume_front(2), kSource, 123, "consume_front", kConsumeCheck);
}

TEST(DataViewDeathTest, ReadPastTheEndIsCaughtByConsume) {
  DataView view = owned_view("abc");
  view.consume_front(2);
  EXPECT_ASSERTION(view.read_uint16(), kSource, 123, "consume_front", kConsumeCheck);
}

TEST(DataViewDeathTest, ConsumeLooksAtTheFirstBlockOnly) {
  DataView view = two_blocks("abc", "def");
  EXPECT_ASSERTION(view.consume_front(4), kSource, 123, "consume_front", kConsumeCheck);
}

TEST(DataViewDeathTest, ReadsLookAtTheFirstBlockOnly) {
  DataView view = two_blocks("ab", "cdef");
  EXPECT_ASSERTION(view.read_uint16(), kSource, 93, "read_uint16", "blocks_.front()->size() > 2");
}

TEST(DataViewDeathTest, WriteNeedsABlock) {
  EXPECT_ASSERTION(DataView().write_uint16(0, 1), kSource, 109, "write_uint16", "!blocks_.empty()");
  EXPECT_ASSERTION(DataView().write_uint32(0, 1), kSource, 116, "write_uint32", "!blocks_.empty()");
}

TEST(DataViewDeathTest, WriteStartsInsideTheBlock) {
  EXPECT_ASSERTION(DataView(4ul).write_uint16(4, 1), kSource, 110, "write_uint16",
                   "blocks_.front()->size() > pos");
  EXPECT_ASSERTION(DataView(4ul).write_uint32(4, 1), kSource, 117, "write_uint32",
                   "blocks_.front()->size() > pos");
}

TEST(DataViewDeathTest, WriteEndsInsideTheBlock) {
  EXPECT_ABORT(DataView(4ul).write_uint16(3, 1), "src/data_view:[0-9]+: write_uint16: ");
  EXPECT_ABORT(DataView(4ul).write_uint32(1, 1), "src/data_view:[0-9]+: write_uint32: ");
}

TEST(DataViewDeathTest, ResizeNeedsExactlyOneBlock) {
  EXPECT_ASSERTION(two_blocks("abc", "def").resize(2), kSource, 213, "resize",
                   "blocks_.size() == 1");
  EXPECT_ASSERTION(DataView().resize(0), kSource, 213, "resize", "blocks_.size() == 1");
}

TEST(DataViewDeathTest, ResizeNeverGrows) {
  EXPECT_ASSERTION(DataView(4ul).resize(5), kSource, 22, "resize", "new_size <= size_");
  EXPECT_ASSERTION(create_block(4ul)->resize(5), kSource, 22, "resize", "new_size <= size_");
}

TEST(DataViewDeathTest, ResizeAfterAShrinkNeverGrowsBack) {
  DataView view(4ul);
  view.resize(2);
  EXPECT_ASSERTION(view.resize(3), kSource, 22, "resize", "new_size <= size_");
}

}  // namespace
