#include "tarn_io/tarn_io_thread.h"

#include <stdio.h>

#include <algorithm>
#include <utility>

#include "src/tarn_log.h"
#include "tarn_io/tarn_poller.h"

namespace {

constexpr int kMaxTimeout = 10000;  // ms
constexpr int kMinTimeout = 20;     // ms

}  // namespace

TarnIoThread::TarnIoThread() : tid_(pthread_self()) {
  // The instance outlives everything: its thread runs until the process is gone.
  free_ = true;
  start();
}

TarnIoThread::~TarnIoThread() {
  TarnIoThread::stop();
  thread_.reset();
  TarnPoller::instance()->set_waker(oxutils::Function());
}

void TarnIoThread::start() {
  if (running_ != 0) return;
  running_ = 1;
  wake_up_.init();
  TarnPoller::instance()->set_waker(oxutils::Function(this, &TarnIoThread::wake));
  thread_.reset(new oxutils::thread(oxutils::Function(this, &TarnIoThread::func)));
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
  unsigned long timeout = kMaxTimeout;
  while (running_ != 0) {
    if (!TarnPoller::instance()->poll(static_cast<unsigned int>(timeout))) return;
    do_pendings();
    timeout = static_cast<unsigned long>(std::max(get_timeout(), kMinTimeout));
    if (timeout > kMaxTimeout) {
      TARN_LOG_ERROR("tarn thread poll timeout %lu", timeout);
      timeout = kMaxTimeout;
    }
  }
}

void TarnIoThread::do_pendings() { pendings_.run_all(); }

void TarnIoThread::run(oxutils::Function f) {
  if (tid_ == pthread_self() || !pendings_.push(f)) {
    f();
  } else {
    wake();
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
