// The copy-free unreliable send: the caller's buffer, prefix and all.
#include <memory>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

class UnreliableNocp : public SessionFixture {
 protected:
  // Sends `len` bytes of 'd' from a buffer that is exactly large enough.
  static void send_nocp(void* session, int len) {
    const auto size = static_cast<size_t>(len) + 12;
    const std::unique_ptr<char[]> buffer(new char[size]);
    std::fill(buffer.get(), buffer.get() + size, 'd');
    tarn_send_unreliable_nocp(session, buffer.get(), len);
  }
};

using UnreliableNocpDeathTest = UnreliableNocp;

}  // namespace

TEST_F(UnreliableNocp, CarriesTheConvEvenWhenItIs0) {
  Endpoint a;

  send_nocp(a.handle(), 10);

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({conv(0), unreliable(Bytes(10, 'd'))})});
}

TEST_F(UnreliableNocp, CarriesNoFeedback) {
  Endpoint a;
  a.input(datagram({reliable(0, {1}), reliable(5, {1})}));

  send_nocp(a.handle(), 10);

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({conv(0), unreliable(Bytes(10, 'd'))})});
}

TEST_F(UnreliableNocp, GivesTheCallersOwnBufferToTheOutput) {
  Endpoint a;
  struct Seen {
    char* data = nullptr;
    static int on_data(char* data, int, void* self) {
      static_cast<Seen*>(self)->data = data;
      return 0;
    }
  } seen;
  tarn_set_output_callback(a.handle(), Seen::on_data, &seen);
  char buffer[32] = {};

  tarn_send_unreliable_nocp(a.handle(), buffer, 20);

  EXPECT_EQ(seen.data, buffer);
  tarn_set_output_callback(a.handle(), nullptr, nullptr);
}

TEST_F(UnreliableNocp, LogsTheCallAndTheDatagram) {
  Endpoint a;
  const LogCapture log;

  send_nocp(a.handle(), 10);

  const auto lines = lines_about(log, a.handle());
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text, text("tarn %p send unreliable len %d", a.handle(), 10));
  EXPECT_EQ(lines[1].level, 5);
  EXPECT_EQ(lines[1].text, text("tarn %p output size %lu", a.handle(), 22ul));
}

TEST_F(UnreliableNocp, WritesThePrefixEvenWithoutAnOutput) {
  Endpoint a;
  tarn_set_output_callback(a.handle(), nullptr, nullptr);
  char buffer[18] = {};

  tarn_send_unreliable_nocp(a.handle(), buffer, 6);

  EXPECT_EQ(Bytes(buffer, buffer + 12), (Bytes{'$', 0, 0x1B, 0, 4, 0, 0, 0, 0, 0x07, 0, 6}));
}

TEST_F(UnreliableNocp, LeavesTheBufferAloneAfterTheSessionWasStopped) {
  Endpoint a;
  const WorkerHold hold;
  char buffer[32] = {};
  tarn_destroy(a.handle());

  tarn_send_unreliable_nocp(a.handle(), buffer, 20);

  EXPECT_EQ(Bytes(buffer, buffer + 32), Bytes(32, 0));
  EXPECT_EQ(a.sent.count(), 0u);
}

TEST_F(UnreliableNocp, TakesALengthOf6) {
  Endpoint a;

  send_nocp(a.handle(), 6);

  EXPECT_EQ(a.sent.all(), std::vector<Bytes>{datagram({conv(0), unreliable(Bytes(6, 'd'))})});
}

TEST_F(UnreliableNocpDeathTest, AbortsBelowALengthOf6) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Endpoint a;
        send_nocp(a.handle(), 5);
      },
      "src/tarn_session:[0-9]+: make_seg_head_nocp: assertion \"len >= 3\" failed");
}

TEST_F(UnreliableNocp, LengthIsCutTo16Bits) {
  Endpoint a;

  send_nocp(a.handle(), 65536 + 7);

  const Bytes sent = a.sent.at(0);
  ASSERT_EQ(sent.size(), 65536u + 7 + 12);
  EXPECT_EQ(Bytes(sent.begin() + 9, sent.begin() + 12), (Bytes{0x07, 0x00, 0x07}));
}
