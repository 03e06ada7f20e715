// Eight threads do everything at once to 64 sessions; half of the sessions have sockets. What is
// delivered is byte-exact and in order, everything that lives arrives, and nothing is left.
// TARN_RACE_SECONDS sets how long.
//
// One thing alone is serialised, by the contract: a session is fed by one thread at a time.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include "tests/race/race_world.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

constexpr double kDefaultSeconds = 3;

double race_seconds() {
  const char* const given = getenv("TARN_RACE_SECONDS");
  return given != nullptr ? atof(given) : kDefaultSeconds;
}

using Race = SocketFixture;

}  // namespace

TEST_F(Race, OfEightThreadsOn64Sessions) {
  restore_default_settings();
  tarn_config_send_window_size(4096);
  tarn_config_recv_window_size(4096);
  const int descriptors = open_descriptors();
  RaceWorld world;
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(race_seconds());

  std::vector<std::thread> threads;
  for (uint32_t thread = 0; thread < kRaceThreads; ++thread) {
    threads.emplace_back([&world, thread, end] {
      std::mt19937 random(thread);
      while (std::chrono::steady_clock::now() < end) world.act(thread, random);
    });
  }
  for (std::thread& each : threads) each.join();

  tarn_set_log_callback2(0, nullptr);
  EXPECT_TRUE(world.settle_everything());
  EXPECT_TRUE(world.destroy_everything());
  EXPECT_EQ(world.verdict().count(), 0) << world.verdict().first();
  EXPECT_EQ(world.inconsistent(), 0u);
  EXPECT_GT(world.received(), 0u);
  EXPECT_EQ(open_descriptors(), descriptors);
  printf("%zu pairs of sessions, %llu messages sent, %llu received\n", world.pairs(),
         static_cast<unsigned long long>(world.sent()),
         static_cast<unsigned long long>(world.received()));
}
