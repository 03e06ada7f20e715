#include "src/tarn_thread.h"

#include <stdlib.h>
#include <unistd.h>

#include <utility>

#include "src/tarn_log.h"

TarnThread::~TarnThread() {
  ending_ = true;
  event_.Set();
  thread_.reset();
}

void TarnThread::start() {
  if (!try_start()) TARN_LOG_ERROR("thread create failed");
}

bool TarnThread::try_start() {
  const oxutils::scoped_lock hold(start_lock_);
  if (thread_) return true;
  if (!timers_) timers_.reset(new TarnTimerQueue(this));
  thread_.reset(new oxutils::thread(oxutils::Function(this, &TarnThread::thread_func)));
  const bool created = thread_->created();
  if (!created) thread_.reset();  // a later start() tries again
  return created;
}

void TarnThread::stop() {
  const oxutils::scoped_lock hold(start_lock_);
  if (thread_) event_.Set();
}

pthread_t TarnThread::get_tid() { return tid_; }

bool TarnThread::is_in_thread() { return tid_ == pthread_self(); }

void TarnThread::thread_func() {
  TARN_LOG_DEBUG("thread start");
#if defined(__linux__)
  pthread_setname_np(pthread_self(), "tarn_thread");
#endif
  if (tid_ == pthread_t{}) tid_ = pthread_self();
  while (!ending_) {
    event_.Wait(timers_->get_timeout());
    const auto turn = turn_.begin();
    do_pending_func();
    timers_->process_timers();
  }
  TARN_LOG_DEBUG("thread end");
}

void TarnThread::do_pending_func() { pending_.run_all(); }

void TarnThread::run(oxutils::Function f) {
  if (is_in_thread()) {
    f();
    return;
  }
  pending_.push(f);
  event_.Set();
}

void TarnThread::wait(oxutils::Function f) {
  if (is_in_thread() || updater_ == pthread_self()) {
    f();
    return;
  }
  oxutils::sem done;
  run(oxutils::Function(&tarn_wait_func, &done, std::move(f)));
  done.wait();
}

void tarn_wait_func(oxutils::sem* done, oxutils::Function f) {
  f();
  done->post();
}

// The line is for whoever forgot; the assertion that follows it names no call of theirs.
TarnTimerQueue& TarnThread::timers() {
  constexpr char kForgotten[] = "tarn: call tarn_init() first\n";
  if (!timers_ && write(STDERR_FILENO, kForgotten, sizeof kForgotten - 1) < 0) abort();
  return *timers_.operator->();
}

// The event makes the worker compute its wait anew, with this timer.
int TarnThread::file_timer(oxutils::Function f, int delay, int interval) {
  const int id = timers().add_timer(std::move(f), delay, interval);
  event_.Set();
  return id;
}

int TarnThread::run_every(int interval, oxutils::Function f) {
  return file_timer(std::move(f), interval, interval);
}

int TarnThread::run_after(int delay, oxutils::Function f) {
  return file_timer(std::move(f), delay, 0);
}

int TarnThread::run_at(int tick, oxutils::Function f) {
  const unsigned int delay = static_cast<unsigned int>(tick) - TarnTimerQueue::cur_tick();
  return file_timer(std::move(f), static_cast<int>(delay), 0);
}

void TarnThread::cancel_timer(int id) { timers().cancel_timer(id); }

int TarnThread::get_timeout() { return timers().get_timeout(); }

void TarnThread::update() {
  TarnTimerQueue& queue = timers();  // aborts, without start(), before the turn
  const auto turn = turn_.try_begin();
  if (!turn) return;
  updater_ = pthread_self();
  try {
    queue.process_timers();
  } catch (...) {
    updater_ = pthread_t{};
    event_.Set();  // the worker does the rest
    throw;
  }
  updater_ = pthread_t{};
}
