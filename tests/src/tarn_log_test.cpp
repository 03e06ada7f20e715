#include "src/tarn_log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tarn/tarn.h"
#include "tests/support/log_capture.h"

namespace {

using Texts = std::vector<std::string>;

// What the callbacks got, in the order of their calls.
Texts& got() {
  static Texts& texts = *new Texts;
  return texts;
}
void on_text(const char* text) { got().push_back(text); }
void on_level_and_text(int level, const char* text) {
  got().push_back(std::to_string(level) + " " + text);
}
void call_back_in(int, const char* text) {
  got().push_back(text);
  if (got().size() == 1) {
    unsigned short count = 0;
    const char* version = nullptr;
    tarn_version(&version);
    tarn_config_mtu(1400);
    TarnLog::instance()->write(1, "from inside %u", count);
  }
}

class LogTest : public ::testing::Test {
 protected:
  LogTest() { reset(); }
  ~LogTest() override { reset(); }

  TarnLog& log() { return *TarnLog::instance(); }
  Texts take() {
    Texts taken;
    taken.swap(got());
    return taken;
  }

 private:
  void reset() {
    log().set_log_level(0);
    log().set_log_callback(nullptr);
    log().set_log_callback2(nullptr);
    got().clear();
  }
};

TEST_F(LogTest, IsSilentByDefault) {
  log().set_log_callback(on_text);
  log().set_log_callback2(on_level_and_text);
  for (int level = 1; level <= 5; ++level) log().write(level, "message");
  EXPECT_EQ(take(), Texts{});
}

TEST_F(LogTest, PassesMessagesUpToItsThreshold) {
  log().set_log_callback2(on_level_and_text);
  log().set_log_level(3);
  for (int level = 1; level <= 5; ++level) log().write(level, "message");
  EXPECT_EQ(take(), (Texts{"1 message", "2 message", "3 message"}));
}

TEST_F(LogTest, ComparesLevelsAsSignedNumbers) {
  log().set_log_callback2(on_level_and_text);
  log().set_log_level(-1);
  log().write(0, "message");
  EXPECT_EQ(take(), Texts{});
  log().write(-1, "message");
  EXPECT_EQ(take(), Texts{"-1 message"});
}

TEST_F(LogTest, FormatsLikePrintf) {
  log().set_log_callback(on_text);
  log().set_log_level(5);
  log().write(5, "%d %u %s %lu %%", -1, 2u, "three", 4ul);
  EXPECT_EQ(take(), Texts{"-1 2 three 4 %"});
}

TEST_F(LogTest, AddsNothingToTheText) {
  log().set_log_callback(on_text);
  log().set_log_level(5);
  log().write(1, "text");
  EXPECT_EQ(take(), Texts{"text"});
}

TEST_F(LogTest, CutsAMessageTo1023Characters) {
  log().set_log_callback(on_text);
  log().set_log_level(5);
  const std::string fits(1023, 'x');
  log().write(1, "%s", fits.c_str());
  log().write(1, "%s", (fits + "y").c_str());
  log().write(1, "%s", std::string(5000, 'x').c_str());
  EXPECT_EQ(take(), (Texts{fits, fits, fits}));
}

TEST_F(LogTest, PassesAnEmptyMessage) {
  log().set_log_callback(on_text);
  log().set_log_level(5);
  log().write(1, "%s", "");
  EXPECT_EQ(take(), Texts{""});
}

TEST_F(LogTest, CallsTheTextCallbackFirst) {
  log().set_log_callback(on_text);
  log().set_log_callback2(on_level_and_text);
  log().set_log_level(5);
  log().write(2, "message");
  EXPECT_EQ(take(), (Texts{"message", "2 message"}));
}

TEST_F(LogTest, WorksWithoutCallbacks) {
  log().set_log_level(5);
  log().write(1, "nobody hears this");
  EXPECT_EQ(take(), Texts{});
}

TEST_F(LogTest, CallbackCanBeTakenAway) {
  log().set_log_level(5);
  log().set_log_callback(on_text);
  log().set_log_callback(nullptr);
  log().write(1, "message");
  EXPECT_EQ(take(), Texts{});
}

TEST_F(LogTest, KeepsALonePercentAtTheEndOfAText) {
  log().set_log_callback2(on_level_and_text);
  log().set_log_level(2);
  tarn_get_conv(nullptr);
  EXPECT_EQ(take(), Texts{"2 tarn_get_conv fail,bad tarn %"});
}

TEST_F(LogTest, FirstSettingIsNotLoggedItself) {
  tarn_set_log_callback(5, on_text);
  EXPECT_EQ(take(), Texts{});
}

TEST_F(LogTest, SettingIsLoggedWhileTheOldThresholdPassesInfo) {
  tarn_set_log_callback(3, on_text);
  tarn_set_log_callback(1, on_text);
  EXPECT_EQ(take(), Texts{"tarn log level 1"});
  tarn_set_log_callback(2, on_text);
  tarn_set_log_callback(3, on_text);
  EXPECT_EQ(take(), Texts{}) << "the thresholds before were 1 and 2";
}

TEST_F(LogTest, SettingIsLoggedToTheOldCallback) {
  tarn_set_log_callback(5, on_text);
  tarn_set_log_callback(4, nullptr);
  EXPECT_EQ(take(), Texts{"tarn log level 4"});
  log().write(1, "message");
  EXPECT_EQ(take(), Texts{});
}

TEST_F(LogTest, SecondFormSetsTheOtherCallback) {
  tarn_set_log_callback(5, on_text);
  tarn_set_log_callback2(4, on_level_and_text);
  EXPECT_EQ(take(), Texts{"tarn log level 4"});
  tarn_set_log_callback2(-7, on_level_and_text);
  EXPECT_EQ(take(), (Texts{"tarn log level -7", "3 tarn log level -7"}));
}

TEST_F(LogTest, CallbackMayCallTheLibrary) {
  tarn_set_log_callback2(5, call_back_in);
  log().write(1, "outer");
  EXPECT_EQ(take(), (Texts{"outer", "from inside 0"}));
}

TEST_F(LogTest, AnotherObjectIsSilentAndLeavesTheProcesssAlone) {
  const tarn_test::LogCapture capture;
  {
    TarnLog other;
    other.write(1, "from another");
  }
  log().write(1, "from the process's own");
  EXPECT_EQ(capture.count_containing("from another"), 0);
  EXPECT_EQ(capture.count(1, "from the process's own"), 1);
}

TEST(LogThreads, MayLogWhileSettingsChange) {
  const tarn_test::LogCapture capture;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([] {
      for (int n = 0; n < 500; ++n) TarnLog::instance()->write(1, "number %d", n);
    });
  }
  for (int n = 0; n < 500; ++n) TarnLog::instance()->set_log_level(5);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(capture.count(1, "number 499"), 3);
}

// Plain on purpose: whether a callback may read it is ThreadSanitizer's to say.
int needed = 0;
std::atomic<int> seen{0};
void see(const char*) { seen = needed; }

// Logs on another thread until a line has reached the callback, which `set` is the last step to.
template <typename Set>
int seen_after(Set set) {
  seen = 0;
  std::thread logger([] {
    while (seen == 0) TarnLog::instance()->write(1, "line");
  });
  needed = 7;
  set();
  logger.join();
  return seen;
}

TEST_F(LogTest, ACallbackSeesWhatWasWrittenBeforeItWasSet) {
  log().set_log_level(1);
  EXPECT_EQ(seen_after([this] { log().set_log_callback(see); }), 7);
}

TEST_F(LogTest, ACallbackSeesWhatWasWrittenBeforeTheLevelWasRaised) {
  log().set_log_callback(see);
  EXPECT_EQ(seen_after([this] { log().set_log_level(1); }), 7);
}

TEST(LogLevels, AreNumbered1To5) {
  EXPECT_EQ(TarnLog::LogLevel{TarnLog::LOG_ERROR}, 1);
  EXPECT_EQ(TarnLog::LogLevel{TarnLog::LOG_WARN}, 2);
  EXPECT_EQ(TarnLog::LogLevel{TarnLog::LOG_INFO}, 3);
  EXPECT_EQ(TarnLog::LogLevel{TarnLog::LOG_DEBUG}, 4);
  EXPECT_EQ(TarnLog::LogLevel{TarnLog::LOG_VERBOSE}, 5);
}

}  // namespace
