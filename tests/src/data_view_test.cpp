// DataView: wrapping, sharing, slicing, appending.
#include "src/data_view.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "tests/support/kit_bytes.h"

using tarn_test::owned_view;
using tarn_test::text_of;

namespace {

TEST(Block, RefersToForeignBytesWithoutCopying) {
  char bytes[] = {'a', 'b', 'c'};
  const oxutils::shared_ptr<Block> block = create_block(bytes, sizeof bytes);
  EXPECT_EQ(block->size(), 3u);
  EXPECT_EQ(block.use_count(), 1u);
}

TEST(Block, OwnsAsManyBytesAsAskedFor) {
  EXPECT_EQ(create_block(5ul)->size(), 5u);
  EXPECT_EQ(create_block(0ul)->size(), 0u);
}

TEST(Block, ShrinksToItsNewSize) {
  const oxutils::shared_ptr<Block> block = create_block(5ul);
  block->resize(5);
  EXPECT_EQ(block->size(), 5u);
  block->resize(2);
  EXPECT_EQ(block->size(), 2u);
  block->resize(0);
  EXPECT_EQ(block->size(), 0u);
}

TEST(Block, OwnedBytesStayOwnedWhenTheyAreCopied) {
  Block block(4);
  const char* const before = block.data();
  block.resize(0);
  block.deep_copy();
  EXPECT_TRUE(block.owns_bytes());
  EXPECT_EQ(block.data(), before);
}

TEST(DataView, IsEmptyByDefault) { EXPECT_EQ(DataView().size(), 0u); }

TEST(DataView, WrapsForeignBytesWithoutCopying) {
  char bytes[] = {'a', 'b', 'c'};
  DataView view(bytes, sizeof bytes);
  EXPECT_EQ(view.size(), 3u);
  EXPECT_EQ(view.data(), bytes);
}

TEST(DataView, SeesLaterChangesToForeignBytes) {
  char bytes[] = {'a', 'b', 'c'};
  const DataView view(bytes, sizeof bytes);
  bytes[1] = 'X';
  EXPECT_EQ(text_of(view), "aXc");
}

TEST(DataView, OwnsZeroBytesOfAGivenLength) {
  DataView view(4ul);
  EXPECT_EQ(view.size(), 4u);
  EXPECT_EQ(text_of(view), std::string(4, '\0'));
}

TEST(DataView, AcceptsALengthOfZero) {
  EXPECT_EQ(DataView(0ul).size(), 0u);
  EXPECT_EQ(DataView(nullptr, 0).size(), 0u);
}

TEST(DataView, CopySharesTheBytes) {
  DataView view(3ul);
  DataView copy = view;
  *view.data() = 'X';
  EXPECT_EQ(copy.data(), view.data());
  EXPECT_EQ(*copy.data(), 'X');
}

TEST(DataView, CopyHasCountsOfItsOwn) {
  DataView view = owned_view("abcdef");
  view.consume_front(1);
  DataView copy = view;
  view.consume_front(2);
  EXPECT_EQ(text_of(copy), "bcdef");
  EXPECT_EQ(text_of(view), "def");
}

TEST(DataView, BytesLiveAsLongAsAnyViewOfThem) {
  DataView copy;
  {
    const DataView view = owned_view("abc");
    copy = view;
  }
  EXPECT_EQ(text_of(copy), "abc");
}

TEST(DataView, DataOfOneBlockIsTheFirstByteNotConsumed) {
  char bytes[] = {'a', 'b', 'c'};
  DataView view(bytes, sizeof bytes);
  view.consume_front(2);
  EXPECT_EQ(view.data(), bytes + 2);
}

TEST(DataViewConsume, DropsBytesAtTheFront) {
  DataView view = owned_view("abcdef");
  view.consume_front(2);
  EXPECT_EQ(text_of(view), "cdef");
  view.consume_front(0);
  EXPECT_EQ(view.size(), 4u);
}

TEST(DataViewConsume, MayTakeEverything) {
  DataView view = owned_view("abc");
  view.consume_front(3);
  EXPECT_EQ(view.size(), 0u);
}

TEST(DataViewDeepCopy, DetachesFromForeignBytes) {
  char bytes[] = {'a', 'b', 'c'};
  DataView view(bytes, sizeof bytes);
  view.deep_copy();
  bytes[1] = 'X';
  EXPECT_EQ(text_of(view), "abc");
  EXPECT_NE(view.data(), bytes);
}

TEST(DataViewDeepCopy, LeavesBytesThatAreOwnedAlready) {
  DataView view(3ul);
  const char* before = view.data();
  view.deep_copy();
  EXPECT_EQ(view.data(), before);
}

TEST(DataViewDeepCopy, DetachesEveryViewOfTheBlock) {
  char bytes[] = {'a', 'b', 'c', 'd'};
  DataView view(bytes, sizeof bytes);
  DataView head = view.slice(2);
  head.deep_copy();
  bytes[0] = 'X';
  bytes[3] = 'X';
  EXPECT_EQ(text_of(head), "ab");
  EXPECT_EQ(text_of(view), "cd");
}

TEST(DataViewDeepCopy, KeepsWhatWasConsumedAndTrimmed) {
  char bytes[] = {'a', 'b', 'c', 'd', 'e'};
  DataView view(bytes, sizeof bytes);
  view.consume_front(1);
  DataView head = view.slice(3);
  head.deep_copy();
  EXPECT_EQ(text_of(head), "bcd");
}

TEST(DataViewDeepCopy, AcceptsAViewWithoutBlocks) {
  DataView view;
  view.deep_copy();
  EXPECT_EQ(view.size(), 0u);
}

TEST(DataViewSlice, SplitsAHeadFromTheRest) {
  DataView view = owned_view("0123456789");
  const DataView head = view.slice(4);
  EXPECT_EQ(text_of(head), "0123");
  EXPECT_EQ(text_of(view), "456789");
}

TEST(DataViewSlice, SharesOneBlockWithTheRest) {
  char bytes[] = "0123456789";
  DataView view(bytes, 10);
  DataView head = view.slice(4);
  EXPECT_EQ(head.data(), bytes);
  EXPECT_EQ(view.data(), bytes + 4);
}

TEST(DataViewSlice, StartsAfterWhatWasConsumed) {
  DataView view = owned_view("0123456789");
  view.consume_front(2);
  EXPECT_EQ(text_of(view.slice(3)), "234");
  EXPECT_EQ(text_of(view), "56789");
}

TEST(DataViewSlice, MayTakeNothingOrEverything) {
  DataView view = owned_view("abc");
  EXPECT_EQ(view.slice(0).size(), 0u);
  EXPECT_EQ(text_of(view.slice(3)), "abc");
  EXPECT_EQ(view.size(), 0u);
}

TEST(DataViewSlice, CutsARunOfPieces) {
  DataView view = owned_view("0123456789");
  EXPECT_EQ(text_of(view.slice(4)), "0123");
  EXPECT_EQ(text_of(view.slice(4)), "4567");
  EXPECT_EQ(text_of(view), "89");
}

TEST(DataViewSlice, OfASliceReachesTrimBytesFurther) {
  DataView view = owned_view("0123456789");
  DataView head = view.slice(6);  // four bytes are cut off at its end
  const DataView inner = head.slice(3);
  EXPECT_EQ(text_of(inner), "0123456") << "three bytes and four more";
  EXPECT_EQ(text_of(head), "345");
}

TEST(DataViewSlice, MergesTwoBlocksFirst) {
  DataView view = owned_view("abc");
  DataView more = owned_view("def");
  view.append(more);
  EXPECT_EQ(text_of(view.slice(4)), "abcd");
  EXPECT_EQ(text_of(view), "ef");
}

TEST(DataViewAppend, PutsTheOtherBytesBehindItsOwn) {
  DataView view = owned_view("abc");
  DataView other = owned_view("de");
  view.append(other);
  EXPECT_EQ(view.size(), 5u);
  EXPECT_EQ(text_of(view), "abcde");
  EXPECT_EQ(text_of(other), "de");
}

TEST(DataViewAppend, CopiesBothSides) {
  char first[] = {'a', 'b'};
  char second[] = {'c', 'd'};
  DataView view(first, sizeof first);
  DataView other(second, sizeof second);
  view.append(other);
  first[0] = 'X';
  second[0] = 'X';
  EXPECT_EQ(text_of(view), "abcd");
}

TEST(DataViewAppend, ToAnEmptyViewIsACopyOfTheOther) {
  char bytes[] = {'a', 'b'};
  DataView view;
  DataView other(bytes, sizeof bytes);
  view.append(other);
  bytes[0] = 'X';
  EXPECT_EQ(text_of(view), "ab");
}

TEST(DataViewAppend, OfAnEmptyViewKeepsTheBytes) {
  DataView view = owned_view("abc");
  DataView empty;
  view.append(empty);
  EXPECT_EQ(text_of(view), "abc");
}

TEST(DataViewAppend, OfEmptyToEmptyIsEmpty) {
  DataView view;
  DataView empty;
  view.append(empty);
  EXPECT_EQ(view.size(), 0u);
}

TEST(DataViewAppend, LeavesOutWhatWasConsumedAndTrimmed) {
  DataView rest = owned_view("0123456789");
  rest.consume_front(1);
  DataView head = rest.slice(3);
  DataView view = owned_view("ab");
  view.append(head);
  EXPECT_EQ(text_of(view), "ab123");
  head.append(rest);
  EXPECT_EQ(text_of(head), "123456789");
}

TEST(DataViewAppend, ResetsBothCounts) {
  DataView rest = owned_view("0123456789");
  rest.consume_front(2);
  DataView head = rest.slice(4);
  DataView empty;
  head.append(empty);
  EXPECT_EQ(text_of(head.slice(2)), "23") << "a slice of a trimmed view would reach further";
  EXPECT_EQ(text_of(head), "45");
}

TEST(DataViewAppend, ReadsTwoBlocksOfTheOther) {
  DataView other = owned_view("ab");
  DataView more = owned_view("cd");
  other.append(more);
  DataView view = owned_view("x");
  view.append(other);
  EXPECT_EQ(text_of(view), "xabcd");
  EXPECT_EQ(text_of(other), "abcd");
}

TEST(DataViewAppend, CanBeRepeated) {
  DataView view;
  for (const char* part : {"ab", "cd", "ef", "gh"}) {
    DataView other = owned_view(part);
    view.append(other);
  }
  EXPECT_EQ(text_of(view), "abcdefgh");
}

TEST(DataViewAppend, OfItselfDoublesTheBytes) {
  DataView view = owned_view("abc");
  view.append(view);
  EXPECT_EQ(text_of(view), "abcabc");
}

TEST(DataViewMerge, MakesOneContiguousBlock) {
  DataView view = owned_view("abc");
  DataView more = owned_view("def");
  view.append(more);
  view.merge();
  EXPECT_EQ(std::string(view.data(), 6), "abcdef");
  view.resize(6);  // aborts unless there is one block
  EXPECT_EQ(view.size(), 6u);
}

TEST(DataViewMerge, LeavesASingleBlockAlone) {
  char bytes[] = {'a', 'b', 'c'};
  DataView view(bytes, sizeof bytes);
  view.consume_front(1);
  view.merge();
  EXPECT_EQ(view.data(), bytes + 1);
  EXPECT_EQ(view.size(), 2u);
}

TEST(DataViewMerge, AcceptsAViewWithoutBlocks) {
  DataView view;
  view.merge();
  EXPECT_EQ(view.size(), 0u);
}

TEST(DataViewMerge, HappensInData) {
  DataView view = owned_view("abc");
  DataView more = owned_view("def");
  view.append(more);
  EXPECT_EQ(std::string(view.data(), 6), "abcdef");
  view.resize(6);
}

TEST(DataViewThreads, ViewsOfOneBlockMayGoOnDifferentThreads) {
  for (int round = 0; round < 200; ++round) {
    DataView here = owned_view("abcdef");
    DataView there = here.slice(3);
    std::thread other([view = std::move(there)] { EXPECT_EQ(text_of(view), "abc"); });
    there = DataView();
    here = DataView();
    other.join();
  }
}

}  // namespace
