// Handles: good, bad, null and stale, with the exact line of each call.
#include <set>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

using Handles = SessionFixture;

namespace {

int on_error(TarnError, void*) { return 0; }

struct Call {
  const char* line;
  bool with_pointer;
  void (*run)(void* handle);
};

char* some_bytes() {
  static char bytes[64];
  return bytes;
}

const Call kCalls[] = {
    {"tarn_set_output_callback fail,bad tarn %", false,
     [](void* h) { tarn_set_output_callback(h, DatagramRecorder::on_data, nullptr); }},
    {"tarn_set_recv_reliable_callback fail,bad tarn ", true,
     [](void* h) { tarn_set_recv_reliable_callback(h, DatagramRecorder::on_data, nullptr); }},
    {"tarn_set_recv_unreliable_callback fail,bad tarn ", true,
     [](void* h) { tarn_set_recv_unreliable_callback(h, DatagramRecorder::on_data, nullptr); }},
    {"tarn_set_error_callback fail,bad tarn ", true,
     [](void* h) { tarn_set_error_callback(h, on_error, nullptr); }},
    {"tarn_set_conv fail,bad tarn %", false, [](void* h) { tarn_set_conv(h, 1); }},
    {"tarn_get_conv fail,bad tarn %", false, [](void* h) { EXPECT_EQ(tarn_get_conv(h), 0u); }},
    {"tarn_input fail,bad tarn ", true, [](void* h) { tarn_input(h, some_bytes(), 20); }},
    {"tarn_send_reliable fail,bad tarn ", true,
     [](void* h) { tarn_send_reliable(h, some_bytes(), 20); }},
    {"tarn_send_unreliable fail,bad tarn ", true,
     [](void* h) { tarn_send_unreliable(h, some_bytes(), 20); }},
    {"tarn_send_unreliable fail,bad tarn ", true,
     [](void* h) { tarn_send_unreliable_nocp(h, some_bytes(), 20); }},
};

void expect_one_line_each(void* handle) {
  for (const Call& call : kCalls) {
    const LogCapture log(4);
    call.run(handle);
    const std::string line = call.line + (call.with_pointer ? pointer_text(handle) : "");
    EXPECT_EQ(log.count(2, line), 1) << line;
    EXPECT_EQ(log.count_containing("bad tarn"), 1) << line;
  }
}

}  // namespace

TEST_F(Handles, NullIsBad) { expect_one_line_each(nullptr); }

TEST_F(Handles, AForeignAddressIsBad) {
  int local;
  expect_one_line_each(&local);
}

TEST_F(Handles, AStaleHandleIsBad) {
  Endpoint a;
  void* const stale = a.handle();
  a.destroy();
  expect_one_line_each(stale);
}

TEST_F(Handles, AnAddressInsideASessionIsBad) {
  Endpoint a;
  expect_one_line_each(static_cast<char*>(a.handle()) + 1);
}

TEST_F(Handles, ABadHandleLogsNothingElse) {
  settle();  // what the worker logs when it starts is not counted
  for (const Call& call : kCalls) {
    const LogCapture log;
    call.run(nullptr);
    EXPECT_EQ(log.lines().size(), 1u) << call.line;
  }
}

TEST_F(Handles, ABadHandleComesBeforeABadLength) {
  // Too short for the copy-free send, which would end the process.
  tarn_send_unreliable_nocp(nullptr, nullptr, 0);
}

TEST_F(Handles, LivingSessionsHaveDifferentHandles) {
  std::set<void*> handles;
  for (int i = 0; i < 200; ++i) handles.insert(tarn_create());

  EXPECT_EQ(handles.size(), 200u);
  EXPECT_EQ(handles.count(nullptr), 0u);
  for (void* const handle : handles) EXPECT_EQ(tarn_destroy(handle), 0);
  settle();
}

TEST_F(Handles, EachSessionHasItsOwnState) {
  Endpoint a;
  Endpoint b;

  tarn_set_conv(a.handle(), 1);
  tarn_set_conv(b.handle(), 2);
  a.destroy();

  EXPECT_EQ(tarn_get_conv(b.handle()), 2u);
}

TEST_F(Handles, CreationIsLoggedStepByStep) {
  const LogCapture log(3);

  void* const handle = tarn_create();

  std::vector<std::string> steps;
  int timers = 0;
  for (const LogLine& line : log.lines()) {
    if (line.text.rfind("add_timer id: ", 0) == 0) {
      timers += line.level == 2;
      continue;
    }
    EXPECT_EQ(line.level, 3) << line.text;
    steps.push_back(line.text);
  }
  ASSERT_EQ(steps.size(), 4u);
  EXPECT_NE(steps[0].find(" func: "), std::string::npos);
  EXPECT_EQ(steps[1].rfind(text("tarn session created %p conv: 0 resendfunc: ", handle), 0), 0u);
  EXPECT_EQ(steps[2], text("tarn %p created", handle));
  EXPECT_EQ(steps[3], text("tarn session start %p", handle));
  EXPECT_EQ(timers, 2);
  tarn_destroy(handle);
  settle();
}

TEST_F(Handles, CreationFilesATimerOf30AndOneOfTheRtxTimeout) {
  tarn_config_rtx_timeout(77);
  const LogCapture log(2);

  void* const handle = tarn_create();

  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  int first = 0;
  int second = 0;
  ASSERT_EQ(sscanf(lines[0].text.c_str(), "add_timer id: %d, delay: 30, interval: 30, current tid",
                   &first),
            1);
  ASSERT_EQ(sscanf(lines[1].text.c_str(), "add_timer id: %d, delay: 77, interval: 77, current tid",
                   &second),
            1);
  EXPECT_EQ(second, first + 1);
  tarn_destroy(handle);
  settle();
}
