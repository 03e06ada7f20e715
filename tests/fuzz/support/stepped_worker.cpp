#include "tests/fuzz/support/stepped_worker.h"

#include <pthread.h>

#include "src/tarn_thread.h"
#include "tests/fuzz/support/private_member.h"

namespace tarn_fuzz {

struct Timers {
  using Type = oxutils::unique_ptr<TarnTimerQueue> TarnThread::*;
  friend Type member(Timers);
};
template struct PrivateMember<Timers, &TarnThread::timers_>;

struct ThreadId {
  using Type = oxutils::relaxed<pthread_t> TarnThread::*;
  friend Type member(ThreadId);
};
template struct PrivateMember<ThreadId, &TarnThread::tid_>;

SteppedWorker::SteppedWorker() {
  TarnThread* const worker = TarnThread::instance();
  (worker->*member(Timers())).reset(new TarnTimerQueue(worker));
}

SteppedWorker::~SteppedWorker() {
  turn();
  (TarnThread::instance()->*member(Timers())).reset();
}

void SteppedWorker::turn() {
  TarnThread* const worker = TarnThread::instance();
  worker->*member(ThreadId()) = pthread_self();
  worker->do_pending_func();
  worker->update();
  worker->*member(ThreadId()) = pthread_t{};
}

}  // namespace tarn_fuzz
