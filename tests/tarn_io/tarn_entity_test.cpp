// TarnEntity: one session on several I/O objects.
#include "tarn_io/tarn_entity.h"

#include <gtest/gtest.h>

#include <string>

#include "tarn/tarn.h"
#include "tests/support/kit_worker.h"
#include "tests/support/net_sockets.h"

using tarn_test::Ends;

namespace {

struct Udp {
  Ends ends = tarn_test::udp_ends();
  TarnIo io{TarnSocket(ends.near.get())};
  std::string received() { return tarn_test::receive_text(ends.far.get()); }
  bool has_received() { return tarn_test::wait_readable(ends.far.get(), 0); }
};

class Entity : public ::testing::Test {
 protected:
  ~Entity() override { tarn_destroy(session_); }

  int output(std::string data) {
    return TarnEntity::tarn_output(&data[0], static_cast<int>(data.size()), &entity_);
  }

  tarn_test::RunningWorker worker_;
  void* session_ = tarn_create();
  TarnEntity entity_{session_};
};

}  // namespace

TEST_F(Entity, SendsOnEveryAttachedObject) {
  Udp one;
  Udp two;
  entity_.attach(&one.io);
  entity_.attach(&two.io);

  EXPECT_EQ(output("hello"), 0);

  EXPECT_EQ(one.received(), "hello");
  EXPECT_EQ(two.received(), "hello");
}

TEST_F(Entity, SendsNothingWithoutObjects) { EXPECT_EQ(output("hello"), 0); }

TEST_F(Entity, CarriesTheSessionsOutput) {
  Udp udp;
  entity_.attach(&udp.io);

  char data[] = "hello";
  tarn_send_unreliable(session_, data, 5);

  EXPECT_NE(udp.received().find("hello"), std::string::npos);
}

TEST_F(Entity, RemovesEveryOccurrenceOfADetachedObject) {
  Udp one;
  Udp two;
  entity_.attach(&one.io);
  entity_.attach(&two.io);
  entity_.attach(&one.io);

  entity_.detach(&one.io);
  output("hello");

  EXPECT_EQ(two.received(), "hello");
  EXPECT_FALSE(one.has_received());
}

TEST_F(Entity, TakesADatagramAndGivesItsSize) {
  Udp udp;
  tarn_test::send_text(udp.ends.far.get(), std::string(2000, 'x'));
  ASSERT_TRUE(tarn_test::wait_readable(udp.ends.near.get()));

  EXPECT_EQ(TarnEntity::read(&udp.io), 1500);

  EXPECT_FALSE(tarn_test::wait_readable(udp.ends.near.get(), 0));
}

TEST_F(Entity, ReadsWhenAnAttachedObjectIsReadable) {
  Udp udp;
  entity_.attach(&udp.io);
  tarn_test::send_text(udp.ends.far.get(), "hello");
  ASSERT_TRUE(tarn_test::wait_readable(udp.ends.near.get()));

  udp.io.trigger_read();

  EXPECT_FALSE(tarn_test::wait_readable(udp.ends.near.get(), 0));
}

TEST_F(Entity, GivesTheBufferedSizeOfAStreamAndConsumesNothing) {
  const Ends ends = tarn_test::tcp_ends();
  TarnIo io{TarnSocket(ends.near.get(), TarnSocket::TCP)};
  tarn_test::send_text(ends.far.get(), "hello");
  ASSERT_TRUE(tarn_test::wait_readable(ends.near.get()));
  io.trigger_read();

  EXPECT_EQ(TarnEntity::read(&io), 5);
  EXPECT_EQ(TarnEntity::read(&io), 5);
}
