// DataView: a view of a block that somebody else owns.
#include <gtest/gtest.h>

#include <string>

#include "src/data_view.h"
#include "tests/support/kit_bytes.h"

using tarn_test::owned_view;
using tarn_test::text_of;

namespace {

class LentView : public ::testing::Test {
 protected:
  // What the owner does with its block once the call is over.
  void overwrite() {
    for (char& byte : bytes_) byte = '!';
  }
  char bytes_[10] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'};
  Block block_{bytes_, sizeof bytes_};
  DataView view_ = DataView::lend(block_);
};

TEST_F(LentView, ShowsTheBlockWithoutCopying) {
  EXPECT_EQ(view_.size(), 10u);
  EXPECT_EQ(view_.data(), bytes_);
}

TEST_F(LentView, CanBeSlicedAndRead) {
  EXPECT_EQ(view_.read_char(), '0');
  DataView head = view_.slice(3);
  EXPECT_EQ(text_of(head), "123");
  EXPECT_EQ(head.data(), bytes_ + 1);
  EXPECT_EQ(text_of(view_), "456789");
}

TEST_F(LentView, DeepCopyOutlivesTheBlock) {
  view_.consume_front(1);
  DataView head = view_.slice(3);
  head.deep_copy();
  overwrite();
  EXPECT_EQ(text_of(head), "123");
}

TEST_F(LentView, DeepCopyOfACopyLeavesTheOthersLent) {
  DataView copy = view_;
  copy.deep_copy();
  overwrite();
  EXPECT_EQ(text_of(copy), "0123456789");
  EXPECT_EQ(text_of(view_), "!!!!!!!!!!");
}

TEST_F(LentView, IsNotItsUsersAlone) {
  EXPECT_TRUE(view_.is_lent());
  EXPECT_FALSE(view_.is_exclusive());
}

TEST_F(LentView, AppendCopiesItsBytes) {
  DataView view = owned_view("ab");
  view.append(view_);
  overwrite();
  EXPECT_EQ(text_of(view), "ab0123456789");
}

}  // namespace
