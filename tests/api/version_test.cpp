#include <gtest/gtest.h>

#include "tarn/tarn.h"

TEST(Version, IsTheReleasedText) {
  const char* version = nullptr;

  tarn_version(&version);

  EXPECT_STREQ(version, "1.3.1.20250319_");
}

TEST(Version, IsTheSameAddressOnEveryCall) {
  const char* first = nullptr;
  const char* second = nullptr;

  tarn_version(&first);
  tarn_version(&second);

  EXPECT_EQ(first, second);
}

TEST(Version, IgnoresANullDestination) { tarn_version(nullptr); }
