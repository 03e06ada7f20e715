#include "tarn_io/tarn_io_thread.h"

#include <stdio.h>

#include <algorithm>
#include <utility>

#include "src/tarn_log.h"
#include "tarn_io/tarn_poller.h"

namespace {

constexpr int kMaxTimeout = 10000;  // ms
constexpr int kMinTimeout = 20;     // ms
// While the wake-up cannot be had, for want of descriptors: passes from one attempt to the next.
constexpr unsigned int kPassesToRetry = 10;
// ms, then; calls come in a row, each after a wait for the one before
constexpr unsigned int kNextCallTimeout = 1;

}  // namespace

TarnIoThread::TarnIoThread(NotStarted) : waker_(this, &TarnIoThread::wake), tid_(pthread_self()) {}

TarnIoThread::~TarnIoThread() {
  TarnIoThread::stop();
  thread_.reset();
  TarnPoller::instance()->reset_waker(waker_);
  wake_up_.fini();
}

void TarnIoThread::start() {
  TarnWakeUp::log(prepare());
  if (create_thread()) return;
  do_pendings();  // what other threads have handed over meanwhile
  TARN_LOG_ERROR("tarn io thread create failed");
}

const char* TarnIoThread::prepare() {
  const oxutils::scoped_lock hold(thread_lock_);
  if (running_ != 0) return nullptr;
  if (thread_ && tid_ == pthread_self()) {
    running_ = 1;  // the loop has not looked yet
    return nullptr;
  }
  // An earlier loop ends by itself, since running_ is 0.
  thread_.reset();
  has_thread_ = false;
  pendings_.open();
  running_ = 1;
  prepared_ = true;
  return wake_up_.open();
}

// Whoever comes first after prepare(): a function that is handed over meanwhile does not wait for
// another thread's log callback.
bool TarnIoThread::create_thread() {
  {
    const oxutils::scoped_lock hold(thread_lock_);
    if (thread_ || !prepared_) return has_thread_;
    thread_.reset(new oxutils::thread(oxutils::Function(this, &TarnIoThread::func)));
    prepared_ = false;
    has_thread_ = thread_->created();
    if (!has_thread_) {
      running_ = 0;
      thread_.reset();
      pendings_.close();
      return false;
    }
  }
  TarnPoller::instance()->set_waker(waker_);
  wake();  // for what has been handed over, or watched, before it could wake the thread
  return true;
}

void TarnIoThread::stop() {
  running_ = 0;
  wake();
}

void TarnIoThread::wake() { wake_up_.wakeup(); }

pthread_t TarnIoThread::get_tid() { return tid_; }

void TarnIoThread::func() {
  tid_ = pthread_self();
#if defined(__linux__)
  pthread_setname_np(pthread_self(), "tarn_io");
#endif
  if (running_ == 0) puts("not running");
  loop();
  TARN_LOG_INFO("tarn thread fini");
  pendings_.close();
  do_pendings();
}

void TarnIoThread::loop() {
  while (running_ != 0) {
    if (!TarnPoller::instance()->poll(next_timeout()) && !regain_wake_up()) return;
    do_pendings();
  }
}

// The last descriptor may have gone just after a shortage that the wake-up fell victim to.
bool TarnIoThread::regain_wake_up() {
  const bool just_tried = passes_without_wake_up_ % kPassesToRetry == 1;
  if (wake_up_.is_open() || just_tried) return false;
  wake_up_.init();
  return wake_up_.is_open();
}

unsigned int TarnIoThread::next_timeout() {
  if (!wake_up_.is_open()) {
    // Soon even if it is there now: nothing has woken the thread for what was handed over before.
    if (passes_without_wake_up_++ % kPassesToRetry == 0) wake_up_.init();
    return has_run_calls_ ? kNextCallTimeout : kMinTimeout;
  }
  // A derived class may have timers.
  const auto timeout = static_cast<unsigned int>(std::max(get_timeout(), kMinTimeout));
  if (timeout <= kMaxTimeout) return timeout;
  TARN_LOG_ERROR("tarn thread poll timeout %lu", static_cast<unsigned long>(timeout));
  return kMaxTimeout;
}

void TarnIoThread::do_pendings() { has_run_calls_ = pendings_.run_all(); }

void TarnIoThread::run(oxutils::Function f) {
  if (!has_thread_) start();
  if (tid_ == pthread_self()) {
    f();
  } else if (pendings_.push(f)) {
    wake();
  } else {
    {
      // The loop has ended: nothing of what was handed over before is left to run after this.
      const oxutils::scoped_lock hold(thread_lock_);
      if (thread_) thread_->join();
    }
    f();
  }
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
