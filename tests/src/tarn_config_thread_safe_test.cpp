// The public header stays out of this file: callers with another prototype exist, and this is one.
#include <gtest/gtest.h>

#include "src/tarn_config.h"

extern "C" void tarn_config_thread_safe(int on);

namespace {

bool stored_for(int value) {
  tarn_config_thread_safe(value);
  const bool stored = TarnConfig::instance()->thread_safe;
  tarn_config_thread_safe(1);
  return stored;
}

TEST(ConfigThreadSafe, KeepsTheLowestBitOfAnInteger) {
  EXPECT_FALSE(stored_for(2));
  EXPECT_FALSE(stored_for(0));
  EXPECT_FALSE(stored_for(256));
  EXPECT_FALSE(stored_for(-2));
  EXPECT_TRUE(stored_for(1));
  EXPECT_TRUE(stored_for(3));
  EXPECT_TRUE(stored_for(-1));
}

}  // namespace
