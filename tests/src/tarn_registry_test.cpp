// The registry of sessions, and the two deletions beside the exported calls.
#include "src/tarn_registry.h"

#include <gtest/gtest.h>

#include <string>

#include "oxutils/sem.h"
#include "src/tarn_session.h"
#include "tests/support/kit_worker.h"
#include "tests/support/log_capture.h"

using tarn_test::LogCapture;
using tarn_test::pointer_text;
using tarn_test::worker_turn;

namespace {

void wait_here(oxutils::sem* entered, oxutils::sem* go_on) {
  entered->post();
  go_on->wait();
}

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

// Any thread may register another session under that handle before the worker gets to it.
TEST_F(TarnRegistry, LaterDeletionOfABadHandleLeavesTheNextSessionOfThatHandleAlone) {
  void* const other = tarn_create();
  const auto session = tarn_get_instance(other);
  int local = 0;
  const LogCapture log;
  TarnThread* const worker = TarnThread::instance();
  oxutils::sem entered;
  oxutils::sem go_on;
  worker->run(oxutils::Function(&wait_here, &entered, &go_on));
  entered.wait();

  tarn_destroy_later(&local);
  ASSERT_TRUE(tarn_sessions().add(&local, session));
  go_on.post();
  worker_turn();

  EXPECT_TRUE(tarn_get_instance(&local));
  const std::string handle = pointer_text(&local);
  EXPECT_EQ(log.count(2, "tarn_set_output_callback fail,bad tarn %"), 1);
  EXPECT_EQ(log.count(2, "tarn_set_recv_reliable_callback fail,bad tarn " + handle), 1);
  EXPECT_EQ(log.count(2, "tarn_set_recv_unreliable_callback fail,bad tarn " + handle), 1);
  EXPECT_EQ(log.count(2, "tarn_set_error_callback fail,bad tarn " + handle), 1);
  EXPECT_EQ(log.count(1, "kcp not surported"), 1);
  EXPECT_EQ(log.count(3, "tarn " + handle + " del"), 1);
  tarn_sessions().remove(&local);
  tarn_destroy(other);
}

// While the deletion is on its way the session exists, so that no other one can get its address.
TEST_F(TarnRegistry, PostedDeletionHoldsItsSession) {
  void* const handle = tarn_create();
  const oxutils::weak_ptr<TarnSession> session(tarn_get_instance(handle));
  TarnThread* const worker = TarnThread::instance();
  oxutils::sem entered;
  oxutils::sem go_on;
  worker->run(oxutils::Function(&wait_here, &entered, &go_on));
  entered.wait();

  tarn_destroy(handle);
  tarn_destroy_later(handle);
  tarn_sessions().remove(handle);
  EXPECT_FALSE(session.expired());
  go_on.post();
  worker_turn();
  EXPECT_TRUE(session.expired());
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
