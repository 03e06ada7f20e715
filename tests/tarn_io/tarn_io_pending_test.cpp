// TarnIo: events, and the ones that came before their callback.
#include <errno.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tarn_io/tarn_io.h"
#include "tests/support/net_sockets.h"

using tarn_test::Ends;
using tarn_test::OwnedFd;

namespace {

void count(void* counter) { ++*static_cast<int*>(counter); }

void record(int error, void* codes) { static_cast<std::vector<int>*>(codes)->push_back(error); }

// A TarnIo on one end of a conversation.
struct Udp {
  Ends ends = tarn_test::udp_ends();
  TarnIo io{TarnSocket(ends.near.get())};
};

struct Tcp {
  Ends ends = tarn_test::tcp_ends();
  TarnIo io{TarnSocket(ends.near.get(), TarnSocket::TCP)};
};

}  // namespace

TEST(TarnIo, MakesItsSocketNonBlocking) {
  const Udp udp;

  EXPECT_TRUE(tarn_test::is_non_blocking(udp.ends.near.get()));
}

TEST(TarnIo, LeavesItsSocketOpenWhenItGoes) {
  const OwnedFd fd = tarn_test::udp_on_loopback();

  { const TarnIo io{TarnSocket(fd.get())}; }

  EXPECT_TRUE(tarn_test::is_open(fd.get()));
}

TEST(TarnIo, GivesAnEventToItsCallback) {
  Udp udp;
  int reads = 0;
  int writes = 0;
  udp.io.set_readable_callback(count, &reads);
  udp.io.set_writeable_callback(count, &writes);

  udp.io.trigger_read();
  udp.io.trigger_write();
  udp.io.trigger_write();

  EXPECT_EQ(reads, 1);
  EXPECT_EQ(writes, 2);
}

TEST(TarnIo, GivesAnEarlyReadableEventOnceToTheFirstCallback) {
  Udp udp;
  int calls = 0;
  udp.io.trigger_read();
  udp.io.trigger_read();

  udp.io.set_readable_callback(count, &calls);
  EXPECT_EQ(calls, 1);
  udp.io.set_readable_callback(count, &calls);

  EXPECT_EQ(calls, 1);
}

TEST(TarnIo, GivesAnEarlyWriteableEventOnceToTheFirstCallback) {
  Udp udp;
  int calls = 0;
  udp.io.trigger_write();

  udp.io.set_writeable_callback(count, &calls);
  udp.io.set_writeable_callback(count, &calls);

  EXPECT_EQ(calls, 1);
}

TEST(TarnIo, RemembersAnEarlyEventWhileNoCallbackIsSet) {
  Udp udp;
  int calls = 0;
  udp.io.trigger_read();
  udp.io.trigger_write();

  udp.io.set_readable_callback(nullptr, nullptr);
  udp.io.set_writeable_callback(nullptr, nullptr);
  udp.io.set_readable_callback(count, &calls);
  udp.io.set_writeable_callback(count, &calls);

  EXPECT_EQ(calls, 2);
}

TEST(TarnIo, GivesTheErrnoOfAnEarlyErrorToTheFirstCallback) {
  Udp udp;
  std::vector<int> codes;
  errno = ECONNREFUSED;
  udp.io.trigger_error();

  udp.io.set_error_callback(nullptr, nullptr);
  udp.io.set_error_callback(record, &codes);
  udp.io.set_error_callback(record, &codes);

  EXPECT_EQ(codes, std::vector<int>{ECONNREFUSED});
}

TEST(TarnIo, GivesTheRememberedCodeNotThePresentOne) {
  Udp udp;
  std::vector<int> codes;
  udp.io.set_error_callback(record, &codes);

  errno = ECONNREFUSED;
  udp.io.trigger_error();
  udp.io.trigger_error();

  EXPECT_EQ(codes, (std::vector<int>{0, 0}));
}

TEST(TarnIo, LeavesADatagramForTheCallbackToRead) {
  Udp udp;
  int calls = 0;
  udp.io.set_readable_callback(count, &calls);
  tarn_test::send_text(udp.ends.far.get(), "hello");
  ASSERT_TRUE(tarn_test::wait_readable(udp.ends.near.get()));

  udp.io.trigger_read();

  char buffer[16];
  EXPECT_EQ(udp.io.read(buffer, sizeof buffer), 5);
  EXPECT_EQ(std::string(buffer, 5), "hello");
}

TEST(TarnIo, MovesAStreamIntoTheSocketsBufferBeforeItCalls) {
  Tcp tcp;
  int calls = 0;
  tcp.io.set_readable_callback(count, &calls);
  tarn_test::send_text(tcp.ends.far.get(), "hello");
  ASSERT_TRUE(tarn_test::wait_readable(tcp.ends.near.get()));

  tcp.io.trigger_read();

  EXPECT_EQ(calls, 1);
  EXPECT_EQ(tcp.io.get_sock().readable_len(), 5);
  EXPECT_EQ(std::string(tcp.io.get_sock().peek(), 5), "hello");
}

TEST(TarnIo, FillsNothingIntoItsOwnBuffer) {
  Tcp tcp;
  tarn_test::send_text(tcp.ends.far.get(), "hello");
  ASSERT_TRUE(tarn_test::wait_readable(tcp.ends.near.get()));

  tcp.io.trigger_read();

  EXPECT_EQ(tcp.io.readable_len(), 0);
  EXPECT_NE(tcp.io.peek(), nullptr);
}

TEST(TarnIo, WritesToItsSocketAndSaysHowMuch) {
  Udp udp;

  EXPECT_EQ(udp.io.write("hello", 5), 5);

  EXPECT_EQ(tarn_test::receive_text(udp.ends.far.get()), "hello");
}

TEST(TarnIo, SendsASessionsOutputAndAlwaysSaysZero) {
  Udp udp;
  char data[] = "hello";

  EXPECT_EQ(TarnIo::tarn_output(data, 5, &udp.io), 0);
  EXPECT_EQ(tarn_test::receive_text(udp.ends.far.get()), "hello");

  TarnIo closed{TarnSocket(-1)};
  EXPECT_EQ(TarnIo::tarn_output(data, 5, &closed), 0);
}
