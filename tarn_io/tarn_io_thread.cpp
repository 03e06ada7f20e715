#include "tarn_io/tarn_io_thread.h"

#include <stdio.h>

#include <algorithm>
#include <utility>

#include "src/tarn_log.h"
#include "tarn_io/tarn_poller.h"

namespace {

constexpr int kMaxTimeout = 10000;  // ms
constexpr int kMinTimeout = 20;     // ms
// ms; while the wake-up cannot be had, for want of descriptors, handed-over functions wait this
// long
constexpr unsigned int kRetryWakeUp = 200;

}  // namespace

TarnIoThread::TarnIoThread() : waker_(this, &TarnIoThread::wake), tid_(pthread_self()) {
  // The instance outlives everything: its thread runs until the process is gone.
  free_ = true;
  start();
}

TarnIoThread::~TarnIoThread() {
  TarnIoThread::stop();
  thread_.reset();
  TarnPoller::instance()->reset_waker(waker_);
  wake_up_.fini();
}

void TarnIoThread::start() {
  const oxutils::scoped_lock hold(thread_lock_);
  if (running_ != 0) return;
  if (thread_ && tid_ == pthread_self()) {
    running_ = 1;  // the loop has not looked yet
    return;
  }
  // An earlier loop ends by itself, since running_ is 0.
  thread_.reset();
  wake_up_.fini();
  pendings_.open();
  running_ = 1;
  wake_up_.init();
  TarnPoller::instance()->set_waker(waker_);
  thread_.reset(new oxutils::thread(oxutils::Function(this, &TarnIoThread::func)));
  create_failed_ = !thread_->created();
  if (!create_failed_) return;
  TARN_LOG_ERROR("tarn io thread create failed");
  running_ = 0;
  thread_.reset();
  pendings_.close();
}

void TarnIoThread::stop() {
  running_ = 0;
  wake();
}

void TarnIoThread::wake() { wake_up_.wakeup(); }

pthread_t TarnIoThread::get_tid() { return tid_; }

void TarnIoThread::func() {
  tid_ = pthread_self();
  if (running_ == 0) puts("not running");
  loop();
  TARN_LOG_INFO("tarn thread fini");
  pendings_.close();
  do_pendings();
}

void TarnIoThread::loop() {
  while (running_ != 0) {
    if (!TarnPoller::instance()->poll(next_timeout())) return;
    do_pendings();
  }
}

unsigned int TarnIoThread::next_timeout() {
  if (!wake_up_.is_open()) {
    // Soon even if it is there now: nothing has woken the thread for what was handed over before.
    return wake_up_.retry() ? static_cast<unsigned int>(kMinTimeout) : kRetryWakeUp;
  }
  // A derived class may have timers.
  const auto timeout = static_cast<unsigned int>(std::max(get_timeout(), kMinTimeout));
  if (timeout <= kMaxTimeout) return timeout;
  TARN_LOG_ERROR("tarn thread poll timeout %lu", static_cast<unsigned long>(timeout));
  return kMaxTimeout;
}

void TarnIoThread::do_pendings() { pendings_.run_all(); }

void TarnIoThread::run(oxutils::Function f) {
  if (create_failed_) start();
  if (tid_ == pthread_self()) {
    f();
  } else if (pendings_.push(f)) {
    wake();
  } else {
    join_ended();
    f();
  }
}

// The loop has ended: nothing of what was handed over before is left to run when this returns.
void TarnIoThread::join_ended() {
  const oxutils::scoped_lock hold(thread_lock_);
  if (thread_) thread_->join();
}

void TarnIoThread::wait(oxutils::Function f) {
  if (tid_ == pthread_self()) {
    f();
    return;
  }
  oxutils::sem done;
  run(oxutils::Function(&tarn_io_wait_func, &done, std::move(f)));
  done.wait();
}

void tarn_io_wait_func(oxutils::sem* done, oxutils::Function f) {
  f();
  done->post();
}

int TarnIoThread::run_every(int, oxutils::Function) { return 0; }
int TarnIoThread::run_after(int, oxutils::Function) { return 0; }
int TarnIoThread::run_at(int, oxutils::Function) { return 0; }
void TarnIoThread::cancel_timer(int) {}
int TarnIoThread::get_timeout() { return kMaxTimeout; }
void TarnIoThread::update() {}
