// A session that is destroyed inside one of its callbacks lives until whoever calls out on its
// behalf has come back: the log tells when it goes.
#include <atomic>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

class DestroyAfterCallback : public SessionFixture {
 protected:
  DestroyAfterCallback() : session_(tarn_create()) {
    tarn_set_output_callback(session_, DatagramRecorder::on_data, &sent_);
    tarn_set_conv(session_, 1);  // which wait_until_gone() sets as well, as long as it can
  }
  ~DestroyAfterCallback() override {
    EXPECT_EQ(calls_, 1);
    EXPECT_FALSE(has_gone_inside_);
    EXPECT_TRUE(log_.wait_for(going()));
    settle();
  }

  std::string going() const { return text("tarn %p conv: 1 destroyed", session_); }

  // On the worker the deletion has run when tarn_destroy() returns; elsewhere it is waited for.
  void act() {
    if (++calls_ != 1) return;
    EXPECT_EQ(tarn_destroy(session_), 0);
    EXPECT_TRUE(wait_until_gone(session_));
    if (std::this_thread::get_id() == test_thread_) settle();
    has_gone_inside_ = log_.count_containing(going()) != 0;
  }
  static int on_data(char*, int, void* self) {
    static_cast<DestroyAfterCallback*>(self)->act();
    return 0;
  }
  static int on_error(TarnError, void* self) {
    static_cast<DestroyAfterCallback*>(self)->act();
    return 0;
  }

  void send() {
    char message[] = "x";
    tarn_send_reliable(session_, message, 1);
  }
  void set_output() { tarn_set_output_callback(session_, on_data, this); }
  void set_error() { tarn_set_error_callback(session_, on_error, this); }

  const LogCapture log_{4};
  void* const session_;
  const std::thread::id test_thread_ = std::this_thread::get_id();
  DatagramRecorder sent_;
  std::atomic<int> calls_{0};
  std::atomic<bool> has_gone_inside_{false};
};

}  // namespace

TEST_F(DestroyAfterCallback, ErrorOfSilence) {
  set_error();
  advance(5100);
}

TEST_F(DestroyAfterCallback, OutputOfFeedback) {
  feed(session_, datagram({reliable(0, {1})}));
  set_output();
  advance(50);
}

TEST_F(DestroyAfterCallback, OutputOfAReSend) {
  for (int i = 0; i < 3; ++i) send();
  set_output();
  advance(60);
}

TEST_F(DestroyAfterCallback, OutputOfASend) {
  set_output();
  send();
}

TEST_F(DestroyAfterCallback, ErrorOfAFullWindow) {
  tarn_config_send_window_size(0);
  set_error();
  send();
}

TEST_F(DestroyAfterCallback, ReliableMessage) {
  tarn_set_recv_reliable_callback(session_, on_data, this);
  feed(session_, datagram({reliable(0, {1}), reliable(1, {1})}));
}

TEST_F(DestroyAfterCallback, UnreliableMessage) {
  tarn_set_recv_unreliable_callback(session_, on_data, this);
  feed(session_, datagram({unreliable({1}), unreliable({1})}));
}

TEST_F(DestroyAfterCallback, ErrorOfTheEnd) {
  set_error();
  feed(session_, datagram({bye(), unreliable({1})}));
}
