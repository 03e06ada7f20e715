// Listeners for tests, over the C interface.
#ifndef TARN_TESTS_SUPPORT_TEST_LISTENER_H_
#define TARN_TESTS_SUPPORT_TEST_LISTENER_H_

#include <gtest/gtest.h>

#include <atomic>

#include "tarn/io.h"
#include "tests/support/plain_socket.h"

namespace tarn_test {

using StartListening = void* (*)(unsigned short port, TarnNewConnCallback callback, void* arg);

// A listener on a free port whose new handles are collected.
template <StartListening start>
struct TestListener {
  TestListener() : handle(start(port, NewHandles::on_new, &handles)) { EXPECT_NE(handle, nullptr); }
  ~TestListener() { tarn_stop_listen(handle); }
  TestListener(const TestListener&) = delete;
  TestListener& operator=(const TestListener&) = delete;

  const unsigned short port = free_port();
  NewHandles handles;
  void* handle;
};

// Stops the listener inside its own callback.
struct StoppingCallback {
  static void on_new(void* io, void* object) {
    auto* const self = static_cast<StoppingCallback*>(object);
    tarn_stop_listen(self->listener);
    NewHandles::on_new(io, &self->handles);
  }

  std::atomic<void*> listener{nullptr};
  NewHandles handles;
};

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_TEST_LISTENER_H_
