#include "tools/file_sink.h"

#include <gtest/gtest.h>

using namespace tarn_tool;

TEST(SafeFileName, IsTheLastPartOfAPath) {
  EXPECT_EQ(safe_file_name("plain.txt"), "plain.txt");
  EXPECT_EQ(safe_file_name("/etc/passwd"), "passwd");
  EXPECT_EQ(safe_file_name("../../up"), "up");
  EXPECT_EQ(safe_file_name("a/b/c"), "c");
}

TEST(SafeFileName, NeverNamesAFolderOrAHiddenFile) {
  EXPECT_EQ(safe_file_name(".."), "_.");
  EXPECT_EQ(safe_file_name("."), "_");
  EXPECT_EQ(safe_file_name(".bashrc"), "_bashrc");
  EXPECT_EQ(safe_file_name("dir/.."), "_.");
}

TEST(SafeFileName, IsNeverEmpty) {
  EXPECT_EQ(safe_file_name(""), "received");
  EXPECT_EQ(safe_file_name("dir/"), "received");
}

TEST(SafeFileName, HasNoControlCharacters) {
  EXPECT_EQ(safe_file_name(std::string("a\n\x1b\0b\x7f", 6)), "a___b_");
}
