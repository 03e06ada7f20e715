// Calls on what is no I/O handle, or no longer one: one line at level 2, a neutral result.
#include <functional>

#include "tarn/io.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

struct Call {
  const char* name;
  // True when the result is the neutral one.
  std::function<bool(void*)> make;
};

void on_event(void*) {}
void on_error(int, void*) {}

std::vector<Call> all_calls(void* session) {
  static char buffer[4] = {};
  return {
      {"tarn_attach_io", [session](void* io) { return tarn_attach_io(session, io), true; }},
      {"tarn_destroy_io", [](void* io) { return tarn_destroy_io(io), true; }},
      {"tarn_set_readable_callback",
       [](void* io) { return tarn_set_readable_callback(io, on_event, nullptr), true; }},
      {"tarn_set_writeable_callback",
       [](void* io) { return tarn_set_writeable_callback(io, on_event, nullptr), true; }},
      {"tarn_set_io_error_callback",
       [](void* io) { return tarn_set_io_error_callback(io, on_error, nullptr), true; }},
      {"tarn_peek_size", [](void* io) { return tarn_peek_size(io) == 0; }},
      {"tarn_peek", [](void* io) { return tarn_peek(io) == nullptr; }},
      {"tarn_consume", [](void* io) { return tarn_consume(io, 1), true; }},
      {"tarn_read", [](void* io) { return tarn_read(io, buffer, 4) == -1; }},
      {"tarn_write", [](void* io) { return tarn_write(io, buffer, 4) == -1; }},
  };
}

void expect_refused(void* handle) {
  const Endpoint session;
  for (const Call& call : all_calls(session.handle())) {
    const LogCapture log(2);

    EXPECT_TRUE(call.make(handle)) << call.name;

    ASSERT_EQ(log.lines().size(), 1u) << call.name << log.lines()[0].text;
    EXPECT_EQ(log.count(2, text("%s fail,bad io %p", call.name, handle)), 1) << log.lines()[0].text;
  }
}

using BadHandles = SocketFixture;
using BadHandlesInTime = SessionFixture;

}  // namespace

TEST_F(BadHandles, NullIsRefusedByEveryCall) { expect_refused(nullptr); }

TEST_F(BadHandles, AnyOtherPointerIsRefusedByEveryCall) {
  int local = 0;
  expect_refused(&local);
}

TEST_F(BadHandles, ASessionIsNoIoHandle) { expect_refused(tarn_create()); }

TEST_F(BadHandles, AListenerIsNoIoHandle) {
  void* const listener = tarn_start_listen_tcp(free_port(), nullptr, nullptr);
  expect_refused(listener);
  tarn_stop_listen(listener);
}

TEST_F(BadHandles, AnIoHandleIsNoSession) {
  const UdpPair pair;
  const LogCapture log(2);

  tarn_attach_io(pair.io, pair.io);

  EXPECT_EQ(log.count(2, text("tarn_attach_io fail,bad tarn %p", pair.io)), 1);
}

TEST_F(BadHandlesInTime, ADestroyedHandleIsGoodFor500MsAndThenRefused) {
  void* const io = tarn_create_udp_io(kLoopback, 9, 0);
  tarn_destroy_io(io);
  settle();

  advance(499);
  {
    const LogCapture log(2);
    EXPECT_EQ(tarn_write(io, "x", 1), -1);
    EXPECT_EQ(log.count_containing("send failed error"), 1);
    EXPECT_EQ(log.count_containing("bad io"), 0);
  }
  advance(2);

  expect_refused(io);
}

TEST_F(BadHandles, StoppingAnythingElseThanAListenerIsLogged) {
  const UdpPair pair;
  const LogCapture log(2);

  tarn_stop_listen(pair.io);

  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].level, 2);
  EXPECT_EQ(tarn_write(pair.io, "x", 1), 1);
}

TEST_F(BadHandles, StoppingNullIsIgnored) {
  const LogCapture log(5);

  tarn_stop_listen(nullptr);

  EXPECT_TRUE(log.lines().empty());
}

TEST_F(BadHandles, StoppingAListenerTwiceIsLogged) {
  void* const listener = tarn_start_listen_tcp(free_port(), nullptr, nullptr);
  tarn_stop_listen(listener);
  const LogCapture log(2);

  tarn_stop_listen(listener);

  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].level, 2);
}

TEST_F(BadHandles, NullDataWithALengthIsRefusedWithALine) {
  const UdpPair pair;
  const LogCapture log(2);

  EXPECT_EQ(tarn_write(pair.io, nullptr, 3), -1);
  EXPECT_EQ(tarn_read(pair.io, nullptr, 3), -1);

  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(log.lines()[0].level, 2);
  EXPECT_EQ(log.lines()[1].level, 2);
}
