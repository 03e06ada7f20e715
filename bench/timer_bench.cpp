// Timers: on the worker, added and cancelled from another thread; and in a queue of their own,
// where they fire.
#include <benchmark/benchmark.h>

#include <chrono>
#include <utility>
#include <vector>

#include "bench/one_cpu.h"
#include "bench/repetitions.h"
#include "bench/worker.h"
#include "oxutils/callback.h"
#include "src/tarn_thread.h"
#include "src/tarn_thread_base.h"
#include "src/tarn_timer.h"
#include "tarn/tarn.h"

namespace bench {
namespace {

// Later than any of them is cancelled. A periodic timer that was cancelled stays in its queue until
// then.
constexpr int kFarMs = 1000;

enum Kind { kOneShot, kPeriodic };

void count_run(long* runs) { ++*runs; }

template <Kind kind>
int add_far_timer(long* runs) {
  TarnThread& worker = *TarnThread::instance();
  const oxutils::Function f(&count_run, runs);
  return kind == kOneShot ? worker.run_after(kFarMs, f) : worker.run_every(kFarMs, f);
}

// CPU time of both threads for one timer that is added and cancelled, while as many as given are
// waiting. Half of the time they are added, and half of it cancelled, in one go.
template <Kind kind>
void TimerAddAndCancel(benchmark::State& state) {
  const long count = state.range(0);
  const OneCpu here;
  tarn_init();
  std::vector<int> ids(static_cast<size_t>(count));
  long runs = 0;
  while (state.KeepRunningBatch(count)) {
    for (int& id : ids) id = add_far_timer<kind>(&runs);
    wait_for_worker();
    for (const int id : ids) TarnThread::instance()->cancel_timer(id);
    wait_for_worker();
  }
  if (ids.back() - ids.front() != count - 1) state.SkipWithError("a timer was not added");
  if (runs != 0) state.SkipWithError("a timer ran that was to be cancelled");
}

void adds_often(benchmark::internal::Benchmark* benchmark) {
  times<50'000>(benchmark->Arg(10)->Arg(1000)->MeasureProcessCPUTime()->UseRealTime());
}

BENCHMARK_TEMPLATE(TimerAddAndCancel, kOneShot)->Apply(adds_often);
BENCHMARK_TEMPLATE(TimerAddAndCancel, kPeriodic)->Apply(adds_often);

// The calling thread owns the queue.
class QueueOwner : public TarnThreadBase {
 public:
  void start() override {}
  void stop() override {}
  pthread_t get_tid() override { return tid_; }
  void run(oxutils::Function f) override { f(); }
  void wait(oxutils::Function f) override { f(); }
  int run_every(int interval, oxutils::Function f) override {
    return timers_.add_timer(std::move(f), interval, interval);
  }
  int run_after(int delay, oxutils::Function f) override {
    return timers_.add_timer(std::move(f), delay, 0);
  }
  int run_at(int, oxutils::Function) override { return 0; }
  void cancel_timer(int id) override { timers_.cancel_timer(id); }
  int get_timeout() override { return timers_.get_timeout(); }
  void update() override { timers_.process_timers(); }

 private:
  const pthread_t tid_ = pthread_self();
  TarnTimerQueue timers_{this};
};

void wait_for_tick_after(unsigned int tick) {
  while (TarnTimerQueue::cur_tick() == tick) {
  }
}

// Time of one run among a thousand that are due together, each of an empty function. The time until
// they are due is not counted.
template <Kind kind>
void TimerFire(benchmark::State& state) {
  constexpr long kTimers = 1000;
  constexpr int kDelayMs = 1;
  QueueOwner owner;
  long runs = 0;
  const oxutils::Function f(&count_run, &runs);
  if (kind == kPeriodic) {
    for (long i = 0; i < kTimers; ++i) owner.run_every(kDelayMs, f);
  }
  while (state.KeepRunningBatch(kTimers)) {
    if (kind == kOneShot) {
      for (long i = 0; i < kTimers; ++i) owner.run_after(kDelayMs, f);
      // One that is due exactly now waits for the next tick.
      wait_for_tick_after(TarnTimerQueue::cur_tick());
    }
    wait_for_tick_after(TarnTimerQueue::cur_tick());
    const long runs_before = runs;
    const auto start = std::chrono::steady_clock::now();
    owner.update();
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    const long fired = runs - runs_before;
    if (fired < kTimers) {
      state.SkipWithError("timers did not run");
      break;
    }
    // More than one period may have passed.
    state.SetIterationTime(taken.count() * static_cast<double>(kTimers) /
                           static_cast<double>(fired));
  }
}

BENCHMARK_TEMPLATE(TimerFire, kOneShot)->UseManualTime()->Apply(times<200'000>);
BENCHMARK_TEMPLATE(TimerFire, kPeriodic)->UseManualTime()->Apply(times<200'000>);

}  // namespace
}  // namespace bench
