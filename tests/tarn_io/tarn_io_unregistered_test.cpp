// TarnIo: an object that is in no registry serves a session as well, for as long as it lives.
#include <gtest/gtest.h>

#include "tarn/tarn.h"
#include "tarn_io/tarn_io.h"
#include "tarn_io/tarn_io_thread.h"
#include "tarn_io/tarn_poller.h"
#include "tests/support/log_capture.h"
#include "tests/support/net_sockets.h"
#include "tests/support/session_fixture.h"

using tarn_test::Endpoint;
using tarn_test::Ends;
using tarn_test::wait_until;

namespace {

void nothing() {}

class UnregisteredIo : public tarn_test::RealTimeFixture {
 protected:
  UnregisteredIo() {
    TarnIoThread::instance()->start();
    EXPECT_TRUE(io_.attach(session_.handle()));
  }
  ~UnregisteredIo() override {
    session_.destroy();
    TarnPoller::instance()->unwatch_read(ends_.near.get());
    // Other tests poll for themselves.
    const tarn_test::LogCapture log(3);
    TarnIoThread::instance()->stop();
    EXPECT_TRUE(log.wait_for("tarn thread fini"));
    // The thread may still take the first of these; whoever comes after it has gone joins it.
    for (int i = 0; i < 2; ++i) TarnIoThread::instance()->wait(oxutils::Function(nothing));
  }

  const Ends ends_ = tarn_test::udp_ends();
  TarnIo io_{TarnSocket(ends_.near.get())};
  Endpoint session_;
};

}  // namespace

TEST_F(UnregisteredIo, SendsWhatTheSessionSends) {
  session_.send_unreliable("hello");
  EXPECT_EQ(tarn_test::receive_text(ends_.far.get()), std::string("$\0\x07\0\x05hello", 10));
}

TEST_F(UnregisteredIo, GivesTheSessionWhatComes) {
  tarn_test::send_text(ends_.far.get(), std::string("$\0\x07\0\x05hello", 10));
  EXPECT_TRUE(wait_until([this] { return session_.unreliable_received.count() == 1; }));
}

TEST_F(UnregisteredIo, RefusesABadSession) {
  int local = 0;
  EXPECT_FALSE(io_.attach(&local));
}
