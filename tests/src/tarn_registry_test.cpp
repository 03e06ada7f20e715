// The registry of sessions, and the two deletions beside the exported calls.
#include "src/tarn_registry.h"

#include <gtest/gtest.h>

#include "src/tarn_session.h"
#include "tests/support/kit_worker.h"
#include "tests/support/log_capture.h"

using tarn_test::LogCapture;
using tarn_test::pointer_text;
using tarn_test::worker_turn;

namespace {

class TarnRegistry : public ::testing::Test {
 protected:
  tarn_test::RunningWorker worker_;
};

TEST_F(TarnRegistry, LaterDeletionRunsOnTheWorker) {
  void* const handle = tarn_create();

  // A session that is deleted without having been stopped would leave its timers behind.
  tarn_get_instance(handle)->stop();
  tarn_destroy_later(handle);
  worker_turn();

  EXPECT_FALSE(tarn_get_instance(handle));
}

TEST_F(TarnRegistry, LaterDeletionOfABadHandleIsStillLoggedAsADeletion) {
  int local = 0;
  const LogCapture log(3);

  tarn_destroy_later(&local);

  EXPECT_TRUE(log.wait_for("tarn " + pointer_text(&local) + " del"));
}

TEST_F(TarnRegistry, GivesACountedReference) {
  void* const handle = tarn_create();
  {
    const auto session = tarn_get_instance(handle);
    tarn_destroy(handle);
    worker_turn();
    EXPECT_FALSE(tarn_get_instance(handle));
    EXPECT_EQ(session.use_count(), 1) << "the call in flight holds it";
  }
}

}  // namespace
