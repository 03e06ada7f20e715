// The log hook: levels, the two callbacks, the order of messages, odd texts.
#include <atomic>
#include <cstring>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

std::vector<std::string> events;

void text_only(const char* line) { events.push_back(std::string("text ") + line); }
void other_text_only(const char* line) { events.push_back(std::string("other ") + line); }
void with_level(int level, const char* line) {
  events.push_back(std::to_string(level) + " " + line);
}

// No worker here: only what the calling thread logs reaches the callbacks.
class Logging : public ::testing::Test {
 protected:
  Logging() { events.clear(); }
  ~Logging() override {
    tarn_set_log_callback(0, nullptr);
    tarn_set_log_callback2(0, nullptr);
  }
};

// Logs at level 1.
void level_1() { tarn_send_kcp(nullptr, nullptr, 0); }
// Logs at level 2.
void level_2() { tarn_get_conv(nullptr); }

}  // namespace

TEST_F(Logging, IsSilentByDefault) {
  tarn_set_log_callback(0, text_only);
  level_1();
  level_2();
  EXPECT_TRUE(events.empty());
}

TEST_F(Logging, TheFirstCallDoesNotLogItself) {
  tarn_set_log_callback(5, text_only);
  EXPECT_TRUE(events.empty());
}

TEST_F(Logging, AChangeIsLoggedToTheOldCallbackUnderTheOldThreshold) {
  tarn_set_log_callback(5, text_only);

  tarn_set_log_callback(1, other_text_only);
  tarn_set_log_callback(5, text_only);

  EXPECT_EQ(events, std::vector<std::string>{"text tarn log level 1"});
}

TEST_F(Logging, AChangeOfTheOtherCallbackIsLoggedToo) {
  tarn_set_log_callback2(3, with_level);

  tarn_set_log_callback2(-7, with_level);

  EXPECT_EQ(events, std::vector<std::string>{"3 tarn log level -7"});
}

TEST_F(Logging, AThresholdOf2DoesNotLogTheChange) {
  tarn_set_log_callback2(2, with_level);
  tarn_set_log_callback2(5, with_level);
  EXPECT_TRUE(events.empty());
}

TEST_F(Logging, PassesMessagesUpToTheThreshold) {
  tarn_set_log_callback2(1, with_level);
  level_1();
  level_2();
  EXPECT_EQ(events, std::vector<std::string>{"1 kcp not surported"});
}

TEST_F(Logging, AThresholdOf3Passes1To3) {
  tarn_set_log_callback2(3, with_level);
  char one = '$';

  level_1();
  level_2();
  tarn_fini();
  tarn_check_packet(&one, 1);

  EXPECT_EQ(events, (std::vector<std::string>{"1 kcp not surported",
                                              "2 tarn_get_conv fail,bad tarn %", "3 tarn fini"}));
}

TEST_F(Logging, AThresholdOf5PassesEverything) {
  tarn_set_log_callback2(5, with_level);
  char one = '$';
  tarn_check_packet(&one, 1);
  EXPECT_EQ(events, std::vector<std::string>{"5 error tarn header len 1"});
}

TEST_F(Logging, ANegativeThresholdPassesNothing) {
  tarn_set_log_callback2(-1, with_level);
  level_1();
  EXPECT_TRUE(events.empty());
}

TEST_F(Logging, TheTextOnlyCallbackComesFirst) {
  tarn_set_log_callback2(1, with_level);
  tarn_set_log_callback(1, text_only);

  level_1();

  EXPECT_EQ(events, (std::vector<std::string>{"text kcp not surported", "1 kcp not surported"}));
}

TEST_F(Logging, TheThresholdIsOneForBoth) {
  tarn_set_log_callback(5, text_only);
  tarn_set_log_callback2(1, with_level);
  events.clear();

  level_2();

  EXPECT_TRUE(events.empty());
}

TEST_F(Logging, NullRemovesOneCallbackOnly) {
  tarn_set_log_callback(1, text_only);
  tarn_set_log_callback2(1, with_level);

  tarn_set_log_callback(1, nullptr);
  level_1();

  EXPECT_EQ(events, std::vector<std::string>{"1 kcp not surported"});
}

TEST_F(Logging, AThresholdWithoutACallbackIsHarmless) {
  tarn_set_log_callback(5, nullptr);
  level_1();
  tarn_get_conv(nullptr);
}

TEST_F(Logging, TextsHaveNoLineEnd) {
  tarn_set_log_callback(5, text_only);
  level_1();
  level_2();
  for (const std::string& event : events) EXPECT_EQ(event.find('\n'), std::string::npos) << event;
}

TEST_F(Logging, ALonePercentSignArrivesAsItIs) {
  tarn_set_log_callback2(2, with_level);

  tarn_get_conv(nullptr);
  tarn_set_conv(nullptr, 1);
  tarn_set_output_callback(nullptr, nullptr, nullptr);
  tarn_wait_destroy(nullptr, 0);

  EXPECT_EQ(events, (std::vector<std::string>{"2 tarn_get_conv fail,bad tarn %",
                                              "2 tarn_set_conv fail,bad tarn %",
                                              "2 tarn_set_output_callback fail,bad tarn %",
                                              "2 tarn_wait_destroy fail,bad tarn %"}));
}

namespace {

thread_local bool inside = false;
void* called_session = nullptr;
std::atomic<int> calls{0};

// Uses the library in many ways on every line.
void call_back(int, const char* line) {
  if (inside) return;
  inside = true;
  ++calls;
  char bytes[] = {'$', 0, 0x07, 0x00, 0x01, 'x'};
  tarn_get_conv(called_session);
  tarn_set_conv(called_session, 3);
  tarn_send_unreliable(called_session, bytes, 3);
  tarn_check_packet(bytes, sizeof bytes);
  tarn_config_mtu(1400);
  tarn_check_update_ms();
  tarn_update();
  if (strstr(line, " del") != nullptr || strstr(line, " created") != nullptr) {
    void* const made = tarn_create();
    tarn_set_output_callback(made, nullptr, nullptr);
    tarn_destroy(made);
  }
  inside = false;
}

}  // namespace

using LogCallback = SessionFixture;

TEST_F(LogCallback, MayCallTheLibrary) {
  Endpoint a;
  called_session = a.handle();
  calls = 0;
  tarn_set_log_callback2(5, call_back);

  {
    Endpoint b;
    b.send("x");
    b.input(datagram({conv(1), reliable(0, {1}), reliable(2, {1}), ack({0}), una(0), bye(), {1}}));
    advance_by_steps(300, 30);
    a.send("y");
    b.destroy();
  }

  tarn_set_log_callback2(0, nullptr);
  EXPECT_GT(calls, 50);
  EXPECT_EQ(tarn_get_conv(a.handle()), 3u);
}

TEST_F(LogCallback, MayReplaceItself) {
  struct Once {
    static void run(int, const char*) {
      // The change logs a line of its own, to this same callback.
      if (inside) return;
      inside = true;
      tarn_set_log_callback2(0, nullptr);
      inside = false;
    }
  };
  Endpoint a;
  tarn_set_log_callback2(5, Once::run);

  a.send("x");

  EXPECT_EQ(a.sent.count(), 1u);
}
