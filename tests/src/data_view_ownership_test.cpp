// DataView: who else can reach its bytes, and what a move or a swap takes along.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "src/data_view.h"
#include "tests/support/kit_bytes.h"

using tarn_test::owned_view;
using tarn_test::text_of;

namespace {

// A view of two blocks: only append() makes one.
DataView two_blocks(const std::string& first, const std::string& second) {
  DataView view = owned_view(first);
  DataView other = owned_view(second);
  view.append(other);
  return view;
}

TEST(ExclusiveView, IsOneWhoseOwnBytesNobodyShares) {
  DataView view = owned_view("abc");
  EXPECT_TRUE(view.is_exclusive());
  {
    const DataView copy = view;
    EXPECT_FALSE(view.is_exclusive());
    EXPECT_FALSE(copy.is_exclusive());
  }
  EXPECT_TRUE(view.is_exclusive());
}

TEST(ExclusiveView, IsNotOneOfForeignBytes) {
  char bytes[] = {'a', 'b'};
  const DataView view(bytes, sizeof bytes);
  EXPECT_FALSE(view.is_exclusive());
}

TEST(ExclusiveView, HasExactlyOneBlock) {
  DataView two = two_blocks("abc", "def");
  EXPECT_FALSE(two.is_exclusive());
  two.merge();
  EXPECT_TRUE(two.is_exclusive());
  EXPECT_FALSE(DataView().is_exclusive());
}

TEST(MovedView, TakesBothBlocksAndLeavesNone) {
  DataView from = two_blocks("abc", "def");
  DataView to(std::move(from));
  EXPECT_EQ(text_of(to), "abcdef");
  EXPECT_EQ(from.size(), 0u);  // NOLINT: a moved view is an empty one
}

TEST(MovedView, TakesItsPlaceInTheBlockAlong) {
  DataView from = owned_view("abcdef");
  from.consume_front(1);
  DataView head = from.slice(2);
  DataView to;
  to = std::move(head);
  EXPECT_EQ(text_of(to), "bc");
}

// Where the view stood in its blocks must not cling to it.
TEST(MovedView, LeavesAViewThatCanBeFilledAnew) {
  DataView constructed_from = owned_view("abcdef");
  DataView assigned_from = owned_view("abcdef");
  for (DataView* const each : {&constructed_from, &assigned_from}) {
    each->consume_front(1);
    *each = each->slice(3);
  }
  const DataView constructed(std::move(constructed_from));
  DataView assigned;
  assigned = std::move(assigned_from);
  EXPECT_EQ(text_of(constructed), "bcd");
  EXPECT_EQ(text_of(assigned), "bcd");

  for (DataView* const each : {&constructed_from, &assigned_from}) {
    DataView more = owned_view("xyz");
    each->append(more);
    EXPECT_EQ(text_of(*each), "xyz");
  }
}

TEST(SwappedViews, HaveEachOthersBytes) {
  DataView two = two_blocks("abc", "def");
  DataView one = owned_view("xyz");
  one.consume_front(1);
  one.swap(two);
  EXPECT_EQ(text_of(one), "abcdef");
  EXPECT_EQ(text_of(two), "yz");
}

}  // namespace
