// The registry of I/O objects: by handle for the application, by number for session output.
#include "tarn_io/tarn_io_registry.h"

#include <gtest/gtest.h>

#include "tarn_io/tarn_io.h"
#include "tests/support/net_sockets.h"

namespace {

class TarnIoRegistry : public ::testing::Test {
 protected:
  oxutils::shared_ptr<TarnIo> add() { return tarn_add_io(TarnSocket(socket_.get())); }

  const tarn_test::OwnedFd socket_ = tarn_test::udp_on_loopback();
};

}  // namespace

TEST_F(TarnIoRegistry, FindsAnObjectByHandleAndByNumber) {
  const auto io = add();
  EXPECT_EQ(tarn_hold_io(io.get()).pointer().get(), io.get());
  EXPECT_EQ(tarn_hold_numbered_io(io->number()).pointer().get(), io.get());
  tarn_remove_io(io.get());
}

TEST_F(TarnIoRegistry, ForgetsBothWhenAnObjectIsRemoved) {
  const auto io = add();
  tarn_remove_io(io.get());
  EXPECT_FALSE(tarn_hold_io(io.get()));
  EXPECT_FALSE(tarn_hold_numbered_io(io->number()));
  EXPECT_EQ(io.use_count(), 1);
}

TEST_F(TarnIoRegistry, NumbersAreNotGivenTwice) {
  const auto one = add();
  void* const number = one->number();
  tarn_remove_io(one.get());
  const auto two = add();
  EXPECT_NE(two->number(), number);
  tarn_remove_io(two.get());
}

TEST_F(TarnIoRegistry, RemovingAnUnknownHandleChangesNothing) {
  const auto io = add();
  int local = 0;
  tarn_remove_io(&local);
  tarn_remove_io(nullptr);
  EXPECT_EQ(tarn_hold_io(io.get()).pointer().get(), io.get());
  tarn_remove_io(io.get());
}
