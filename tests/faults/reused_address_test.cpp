// A handle is an address, and addresses are used again.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <utility>
#include <vector>

#include "tarn/io.h"
#include "tests/support/kept.h"
#include "tests/support/kit_sanitizer.h"
#include "tests/support/plain_socket.h"
#include "tests/support/scripted_peer.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

using ReusedAddress = SocketFixture;

// Runs its code once, on the worker.
class OnWorker {
 public:
  // Returns when the code has run, which it does as soon as the worker finds a session silent.
  static void run(std::function<void()> code) {
    OnWorker self(std::move(code));
    void* const silent = tarn_create();
    tarn_set_error_callback(silent, &OnWorker::on_error, &self);
    tarn_config_active_timeout(1);
    EXPECT_TRUE(wait_until([&] { return self.done_.load(); }));
    tarn_destroy(silent);
    EXPECT_TRUE(wait_until_gone(silent));
    restore_default_settings();
  }

 private:
  explicit OnWorker(std::function<void()> code) : code_(std::move(code)) {}

  static int on_error(TarnError, void* user) {
    auto* const self = static_cast<OnWorker*>(user);
    if (!self->done_) self->code_();
    self->done_ = true;
    return 0;
  }

  const std::function<void()> code_;
  std::atomic<bool> done_{false};
};

// Creates sessions until one is at this address, or there are many.
bool create_until_at(void* address, std::vector<void*>& sessions) {
  for (int i = 0; i < 1000; ++i) {
    sessions.push_back(tarn_create());
    if (sessions.back() == address) return true;
  }
  return false;
}

// A session is attached and destroyed, and others are created. Whether one of them is where it was.
// Allocators keep what a thread frees for that thread: the worker's, or this one's if the call is
// still under way by then.
bool feed_the_successors() {
  const UdpPair pair;
  void* destroyed = nullptr;
  OnWorker::run([&] { destroyed = tarn_create(); });
  tarn_attach_io(destroyed, pair.io);
  tarn_destroy(destroyed);
  settle();
  std::vector<void*> sessions;
  bool is_used_again = false;
  OnWorker::run([&] { is_used_again = create_until_at(destroyed, sessions); });
  if (!is_used_again) is_used_again = create_until_at(destroyed, sessions);
  DatagramRecorder& heard = kept<DatagramRecorder>();
  for (void* const session : sessions) {
    tarn_set_recv_unreliable_callback(session, DatagramRecorder::on_data, &heard);
  }

  const Bytes bytes = datagram({unreliable({1, 2, 3})});
  pair.send(std::string(bytes.begin(), bytes.end()));
  io_thread_pass();
  io_thread_pass();

  EXPECT_EQ(heard.count(), 0u);
  for (void* const session : sessions) tarn_destroy(session);
  return is_used_again;
}

}  // namespace

TEST_F(ReusedAddress, SocketOfADestroyedSessionFeedsNoOtherOne) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    if (feed_the_successors()) return;
  }
  if (tarn_test::kAddressSanitizer || tarn_test::kThreadSanitizer) {
    GTEST_SKIP() << "the sanitizer's allocator keeps what was freed";
  }
  FAIL() << "no address was used again: nothing has been seen";
}
