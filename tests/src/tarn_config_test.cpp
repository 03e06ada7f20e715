#include "src/tarn_config.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tarn/tarn.h"

namespace {

constexpr unsigned kHuge = 4294967295u;

class ConfigTest : public ::testing::Test {
 protected:
  ~ConfigTest() override {
    tarn_config_mtu(1400);
    tarn_config_rtx_timeout(50);
    tarn_config_active_timeout(5000);
    tarn_config_send_window_size(32);
    tarn_config_recv_window_size(32);
    tarn_config_thread_safe(true);
  }
  TarnConfig& config() { return *TarnConfig::instance(); }
};

// Expects a setter to store its argument, whatever that is, in one field and to leave the others.
#define EXPECT_STORES(setter, field)           \
  do {                                         \
    for (const unsigned v : {0u, 7u, kHuge}) { \
      setter(v);                               \
      const unsigned stored = config().field;  \
      EXPECT_EQ(stored, v);                    \
    }                                          \
  } while (false)

TEST_F(ConfigTest, HasDefaults) {
  const TarnConfig& c = config();
  const std::vector<unsigned> values{
      c.mtu, c.rtx_timeout, c.active_timeout, c.send_window_size, c.recv_window_size, c.reserved};
  EXPECT_EQ(values, (std::vector<unsigned>{1400, 50, 5000, 32, 32, 10000}));
  EXPECT_TRUE(c.thread_safe);
}

TEST_F(ConfigTest, StoresValuesUnchecked) {
  EXPECT_STORES(tarn_config_mtu, mtu);
  EXPECT_STORES(tarn_config_rtx_timeout, rtx_timeout);
  EXPECT_STORES(tarn_config_active_timeout, active_timeout);
  EXPECT_STORES(tarn_config_send_window_size, send_window_size);
  EXPECT_STORES(tarn_config_recv_window_size, recv_window_size);
}

TEST_F(ConfigTest, StoresEachSettingInItsOwnField) {
  tarn_config_mtu(1);
  tarn_config_rtx_timeout(2);
  tarn_config_active_timeout(3);
  tarn_config_send_window_size(4);
  tarn_config_recv_window_size(5);
  const TarnConfig& c = config();
  const std::vector<unsigned> values{
      c.mtu, c.rtx_timeout, c.active_timeout, c.send_window_size, c.recv_window_size, c.reserved};
  EXPECT_EQ(values, (std::vector<unsigned>{1, 2, 3, 4, 5, 10000}));
}

TEST_F(ConfigTest, StoresThreadSafety) {
  tarn_config_thread_safe(false);
  EXPECT_FALSE(config().thread_safe);
  tarn_config_thread_safe(true);
  EXPECT_TRUE(config().thread_safe);
}

TEST_F(ConfigTest, MayChangeWhileItIsRead) {
  std::atomic<bool> done{false};
  std::thread reader([&] {
    while (!done) {
      const unsigned mtu = config().mtu;
      EXPECT_GE(mtu, 1000u);
    }
  });
  for (unsigned i = 0; i < 2000; ++i) {
    tarn_config_mtu(1000 + i);
    tarn_config_thread_safe(i % 2 == 0);
  }
  done = true;
  reader.join();
}

TEST_F(ConfigTest, AnotherObjectHasDefaultsAndLeavesTheProcesssAlone) {
  tarn_config_mtu(7);
  {
    const TarnConfig other;
    EXPECT_EQ(other.mtu, 1400u);
  }
  EXPECT_EQ(config().mtu, 7u);
}

TEST(Version, IsTheSameTextAtTheSameAddress) {
  const char* first = nullptr;
  const char* second = nullptr;
  tarn_version(&first);
  tarn_version(&second);
  EXPECT_STREQ(first, "1.3.1.20250319_");
  EXPECT_EQ(first, second);
}

}  // namespace
