// The system refuses threads for as long as the application goes on calling.
#include <errno.h>
#include <gtest/gtest.h>

#include "tarn/io.h"
#include "tests/faults/children.h"
#include "tests/faults/epilogue.h"
#include "tests/faults/fault_points.h"
#include "tests/support/kept.h"
#include "tests/support/plain_socket.h"

using namespace tarn_test;

namespace {

constexpr unsigned kSeconds = 60;

void use_a_handle() {
  void* const io = tarn_create_udp_io(kLoopback, 9, 0);
  tarn_set_readable_callback(io, EventCounter::on_event, &kept<EventCounter>());
  tarn_set_writeable_callback(io, EventCounter::on_event, &kept<EventCounter>());
  tarn_destroy_io(io);
}

void call_without_threads() {
  tarn_init();
  const int before = open_descriptors();
  fault_arm_lasting(kFault_pthread_create, 1, EAGAIN);
  use_a_handle();
  const int after_one = open_descriptors();

  for (int i = 0; i < 20; ++i) use_a_handle();

  EXPECT_GT(fault_calls(kFault_pthread_create), 20u) << "each call tries again";
  EXPECT_EQ(open_descriptors(), after_one);
  expect_no_descriptors_left(before, 0);
  fault_disarm();
  expect_sockets_work();
  expect_no_descriptors_left(before, 0);
}

}  // namespace

TEST(RefusedThreads, CostNoDescriptorACall) {
  const auto results = run_children(
      1, [](size_t) { call_without_threads(); }, kSeconds);
  EXPECT_TRUE(results[0].passed()) << results[0].output;
}
