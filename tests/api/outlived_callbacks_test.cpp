// Whoever calls out on the session's behalf holds it until the callback has returned.
#include <atomic>
#include <string>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

// Logged by the session's destructor.
std::string last_words(const void* session) { return text("tarn %p conv: 0 destroyed", session); }

// Destroys the session, then looks whether its object has gone before the callback returns.
struct OutlivedCallback {
  OutlivedCallback(void* which, const LogCapture& lines) : session(which), log(lines) {}

  static int on_data(char*, int, void* self) {
    auto* const outlived = static_cast<OutlivedCallback*>(self);
    tarn_destroy(outlived->session);
    outlived->gone_inside = outlived->log.count_containing(last_words(outlived->session));
    outlived->called = true;
    return 0;
  }

  void* const session;
  const LogCapture& log;
  int gone_inside = 0;
  std::atomic<bool> called{false};
};

class OutlivedBy : public SessionFixture {
 protected:
  void expect_outlived() {
    advance(60);
    ASSERT_TRUE(wait_until([this] { return callback_.called.load(); }));
    EXPECT_EQ(callback_.gone_inside, 0);
    EXPECT_TRUE(log_.wait_for(last_words(session_)));
  }

  void* const session_ = tarn_create();
  const LogCapture log_{4};
  OutlivedCallback callback_{session_, log_};
};

}  // namespace

TEST_F(OutlivedBy, TheReSendThatDestroysIt) {
  char byte = 1;
  tarn_send_reliable(session_, &byte, 1);
  tarn_set_output_callback(session_, OutlivedCallback::on_data, &callback_);
  expect_outlived();
}

TEST_F(OutlivedBy, TheFeedbackThatDestroysIt) {
  tarn_set_output_callback(session_, OutlivedCallback::on_data, &callback_);
  feed(session_, datagram({reliable(0, {1})}));
  expect_outlived();
}
