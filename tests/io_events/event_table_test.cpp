// What happens to a handle, whatever callbacks it has: what is called, and how often the I/O thread
// turns in a second for it.
#include <errno.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "tests/io_events/event_handle.h"
#include "tests/io_events/virtual_second.h"

namespace tarn_test {
namespace {

struct Bounds {
  int least;
  int most;
};

constexpr Bounds kNever{0, 0};
constexpr Bounds kOnce{1, 1};
constexpr Bounds kEach100Ms{9, 12};
// A hang-up with an error is told twice each time.
constexpr Bounds kTwiceEach100Ms{18, 24};

// Passes in a second: each time one that is told, and one that waits until the rest is over.
constexpr int kQuiet = 8;
constexpr int kHangUp = 30;

struct Row {
  Event event;
  const char* readable;  // any of these
  const char* error;
  Bounds readable_calls;
  Bounds error_calls;
  int most_passes;
};

// An error callback that is null is called never, and its watch ends with the event.
constexpr Row kTable[] = {
    {Event::kFin, "r", "e0-", kOnce, kNever, kQuiet},
    {Event::kFin, "0-", "e0-", kNever, kNever, kQuiet},
    {Event::kHalfClose, "r", "e0-", kOnce, kNever, kQuiet},
    {Event::kHalfClose, "0-", "e0-", kNever, kNever, kQuiet},
    // Told of the end, nobody is told of the hang-up.
    {Event::kBothClosed, "r", "e0-", kOnce, kNever, kHangUp},
    {Event::kBothClosed, "0-", "e", kNever, kEach100Ms, kHangUp},
    {Event::kBothClosed, "0-", "0-", kNever, kNever, kHangUp},
    // The read takes the error, and is told as the end.
    {Event::kReset, "r", "e", kOnce, kOnce, kHangUp},
    {Event::kReset, "r", "0-", kOnce, kNever, kHangUp},
    {Event::kReset, "0", "e", kNever, kEach100Ms, kHangUp},
    {Event::kReset, "-", "e", kNever, kTwiceEach100Ms, kHangUp},
    {Event::kReset, "0-", "0-", kNever, kNever, kHangUp},
    {Event::kRefused, "r", "e", kOnce, kOnce, kHangUp},
    {Event::kRefused, "r", "0-", kOnce, kNever, kHangUp},
    {Event::kRefused, "0", "e", kNever, kEach100Ms, kHangUp},
    {Event::kRefused, "-", "e", kNever, kTwiceEach100Ms, kHangUp},
    {Event::kRefused, "0-", "0-", kNever, kNever, kHangUp},
    // An error that lasts is told also to who knows of the end.
    {Event::kFinThenWrite, "r", "e", kOnce, kTwiceEach100Ms, kHangUp},
    {Event::kFinThenWrite, "r", "0-", kOnce, kNever, kHangUp},
    {Event::kFinThenWrite, "0-", "e", kNever, kTwiceEach100Ms, kHangUp},
    {Event::kFinThenWrite, "0-", "0-", kNever, kNever, kHangUp},
    // The second write has taken it.
    {Event::kFinThenWrites, "r", "e0-", kOnce, kNever, kHangUp},
    {Event::kFinThenWrites, "0-", "e", kNever, kEach100Ms, kHangUp},
    {Event::kFinThenWrites, "0-", "0-", kNever, kNever, kHangUp},
    {Event::kNeverConnected, "r0-", "e", kNever, kEach100Ms, kHangUp},
    {Event::kNeverConnected, "r0-", "0-", kNever, kNever, kHangUp},
    {Event::kUdpRefused, "ar0-", "e", kNever, kOnce, kQuiet},
    {Event::kUdpRefused, "ar0-", "0-", kNever, kNever, kQuiet},
    // Where the system keeps the set, it is seen with the next look, within a second.
    {Event::kClosed, "r0-", "e", kNever, {1, 12}, kHangUp},
    {Event::kClosed, "r0-", "0-", kNever, kNever, kHangUp},
};

bool has(const char* letters, char letter) {
  return std::string(letters).find(letter) != std::string::npos;
}

// The one row for these callbacks.
const Row* find_row(Event event, const Callbacks& callbacks) {
  const Row* found = nullptr;
  for (const Row& each : kTable) {
    if (each.event != event || !has(each.readable, callbacks.readable)) continue;
    if (!has(each.error, callbacks.error)) continue;
    EXPECT_EQ(found, nullptr) << "two rows";
    found = &each;
  }
  return found;
}

void expect_within(const Bounds& bounds, int count, const char* what) {
  EXPECT_GE(count, bounds.least) << what;
  EXPECT_LE(count, bounds.most) << what;
}

// The error of the refusal fails one write, whoever has seen it before.
void expect_one_refused_write(TarnIo& io) {
  EXPECT_EQ(io.write("x", 1), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(io.write("x", 1), 1);
}

void play(Event event, const Callbacks& callbacks, bool is_watched_before) {
  const Row* const row = find_row(event, callbacks);
  ASSERT_NE(row, nullptr) << "no row";
  EventHandle handle(event);
  if (is_watched_before) {
    handle.watch(callbacks);
    poll_once();
  }
  handle.happen();
  if (!is_watched_before) handle.watch(callbacks);

  const int passes = poll_for_a_virtual_second();

  expect_within(row->readable_calls, handle.readable, "readable");
  expect_within(row->error_calls, handle.errors, "error");
  const bool is_writeable = event != Event::kClosed || is_watched_before;
  EXPECT_EQ(handle.writeable, callbacks.writeable == 'w' && is_writeable ? 1 : 0) << "writeable";
  EXPECT_LE(passes, row->most_passes);
  if (event == Event::kUdpRefused) expect_one_refused_write(handle.io());
}

}  // namespace

void PrintTo(Event event, std::ostream* out) { *out << static_cast<int>(event); }

class EventTable : public ::testing::TestWithParam<Event> {};

TEST_P(EventTable, SaysWhatIsCalledAndHowOftenTheThreadTurnsWithEverySetOfCallbacks) {
  for (const char readable : std::string(EventHandle::is_datagram(GetParam()) ? "ar0-" : "r0-")) {
    for (const char writeable : std::string("w0-")) {
      for (const char error : std::string("e0-")) {
        for (const bool before : {true, false}) {
          SCOPED_TRACE(std::string("callbacks ") + readable + writeable + error +
                       (before ? ", watched before" : ", watched after"));
          play(GetParam(), {readable, writeable, error}, before);
        }
      }
    }
  }
}

std::string name_of(const ::testing::TestParamInfo<Event>& event) {
  static const char* const kNames[] = {
      "Fin",          "HalfClose",     "BothClosed",     "Reset",      "Refused",
      "FinThenWrite", "FinThenWrites", "NeverConnected", "UdpRefused", "Closed"};
  return kNames[static_cast<size_t>(event.param)];
}

INSTANTIATE_TEST_SUITE_P(Events, EventTable,
                         ::testing::Values(Event::kFin, Event::kHalfClose, Event::kBothClosed,
                                           Event::kReset, Event::kRefused, Event::kFinThenWrite,
                                           Event::kFinThenWrites, Event::kNeverConnected,
                                           Event::kUdpRefused, Event::kClosed),
                         name_of);

// An error remembered for a null callback waits for the next one, and the refusal for the next
// send.
TEST(EventTable, AnEndThatWasRememberedCountsAsToldWhenACallbackIsSet) {
  EventHandle handle(Event::kBothClosed);
  handle.watch({'0', '-', 'e'});
  handle.happen();
  poll_once();
  EXPECT_EQ(handle.errors, 0);
  poll_once();
  const int before = handle.errors;
  EXPECT_EQ(before, 1) << "nobody has been told of the end";

  handle.watch({'r', '-', '-'});
  poll_for_a_virtual_second();

  EXPECT_EQ(handle.errors, before);
  EXPECT_EQ(handle.readable, 2) << "what was remembered, and once for the watch";
}

// A rest after the error would keep it waiting.
TEST(EventTable, ADatagramAfterAnErrorIsReadInTheNextPassWhoeverWatchesForErrors) {
  for (const char* const error : {"-", "0", "e"}) {
    SCOPED_TRACE(error);
    EventHandle handle(Event::kUdpRefused);
    const uint16_t peer_port = handle.peer_port();
    handle.watch({'r', '-', *error});
    handle.happen();
    poll_once();
    OwnedFd peer = udp_on_loopback(peer_port);
    ASSERT_GE(peer.get(), 0);

    send_text_to(peer.get(), port_of(handle.io().get_sock().fd()), "datagram");
    poll_once();

    EXPECT_EQ(handle.readable, 1);
    char buffer[16];
    EXPECT_EQ(handle.io().read(buffer, sizeof buffer), -1) << "the error comes first";
    EXPECT_EQ(handle.io().read(buffer, sizeof buffer), 8);
  }
}

}  // namespace tarn_test
