#include "tests/interleave/explorer.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace tarn_test {

Explorer* Explorer::active_ = nullptr;
Explorer* Explorer::running_ = nullptr;

Explorer::Explorer(size_t threads, size_t deviations, Make make)
    : deviations_(deviations), make_(std::move(make)), threads_(threads) {
  for (size_t number = 0; number < threads; ++number) {
    threads_[number].fiber = std::make_unique<tarn_sim::Fiber>([this, number] {
      for (;;) run_thread(number);  // once for each run
    });
  }
}

Verdict Explorer::explore() {
  const char* const only = getenv("TARN_INTERLEAVE_SCHEDULE");
  if (only != nullptr) {
    const Verdict verdict = replay(only);
    printf("%s", verdict.trace.c_str());
    return verdict;
  }
  path_.clear();
  verdict_ = Verdict();
  do {
    run_once();
  } while (verdict_.broken.empty() && next_path());
  if (verdict_.broken.empty()) return verdict_;
  const size_t runs = verdict_.runs;
  Verdict verdict = replay(schedule());
  verdict.runs = runs;
  return verdict;
}

Verdict Explorer::replay(const std::string& schedule) {
  path_.clear();
  for (const char digit : schedule) path_.push_back({static_cast<size_t>(digit - '0'), 0});
  verdict_ = Verdict();
  tracing_ = true;
  run_once();
  tracing_ = false;
  verdict_.schedule = schedule;
  return verdict_;
}

// One character for each choice that was to be made; zeros at the end go without saying.
std::string Explorer::schedule() const {
  std::string text;
  for (const Choice& each : path_) text += static_cast<char>('0' + each.taken);
  while (!text.empty() && text.back() == '0') text.pop_back();
  return text;
}

bool Explorer::next_path() {
  while (!path_.empty() && path_.back().taken + 1 == path_.back().count) path_.pop_back();
  if (path_.empty()) return false;
  ++path_.back().taken;
  return true;
}

void Explorer::begin_run() {
  at_ = deviated_ = steps_ = changes_ = places_ = current_ = 0;
  begun_ = 1;
  abandoned_ = false;
  locks_.clear();
  for (Thread& each : threads_) {
    each.done = each.yielded = false;
    each.looked = 0;
    each.can_go_on = nullptr;
    each.view.clear();
  }
}

void Explorer::run_once() {
  active_ = this;
  begin_run();
  ++verdict_.runs;
  scenario_ = make_();
  running_ = this;
  main_.switch_to(*threads_[current_].fiber);
  running_ = nullptr;
  if (!abandoned_) scenario_->finish();
  scenario_.reset();
  active_ = nullptr;
}

void Explorer::run_thread(size_t number) {
  try {
    scenario_->run(number);
  } catch (const Abandoned&) {
  }
  threads_[number].done = true;
  hand_over();
}

size_t Explorer::choose(size_t count, bool costs) {
  if (count == 1 || abandoned_ || (costs && deviated_ == deviations_)) return 0;
  if (at_ == path_.size()) path_.push_back({0, count});
  Choice& choice = path_[at_++];
  if (choice.taken >= count) fail("the scenario is not the same in every run");
  choice.count = count;
  if (costs && choice.taken != 0) ++deviated_;
  return choice.taken;
}

void Explorer::step(const char* what, const void* place, std::function<bool()> can_go_on) {
  Thread& self = threads_[current_];
  if (++steps_ == kMostSteps) abandon("it goes on without end");
  self.can_go_on = std::move(can_go_on);
  if (!abandoned_) hand_over();
  const bool is_stuck = self.can_go_on && !self.can_go_on();
  self.can_go_on = nullptr;
  note(what, place);
  if (!is_stuck && steps_ < 2 * kMostSteps) return;
  if (std::uncaught_exceptions() == 0) throw Abandoned();
}

void Explorer::yield() {
  Thread& self = threads_[current_];
  self.yielded = true;
  if (!abandoned_) hand_over();
  self.yielded = false;
  self.looked = changes_;
  note("yields", nullptr);
}

bool Explorer::can_move(size_t number) const {
  const Thread& thread = threads_[number];
  if (thread.done) return false;
  if (abandoned_) return true;
  if (thread.yielded && thread.looked == changes_) return false;
  return !thread.can_go_on || thread.can_go_on();
}

bool Explorer::all_done() const {
  return std::all_of(threads_.begin(), threads_.end(),
                     [](const Thread& each) { return each.done; });
}

void Explorer::find_movable() {
  movable_.clear();
  if (can_move(current_)) movable_.push_back(current_);
  for (size_t number = 0; number < threads_.size(); ++number) {
    if (number != current_ && can_move(number)) movable_.push_back(number);
  }
}

bool Explorer::begin_next_thread() {
  if (begun_ == threads_.size()) return false;
  switch_to(begun_++);
  return true;
}

void Explorer::switch_to(size_t next) {
  const size_t from = std::exchange(current_, next);
  if (next != from) threads_[from].fiber->switch_to(*threads_[next].fiber);
}

void Explorer::hand_over() {
  if (begin_next_thread()) return;
  if (all_done()) return threads_[current_].fiber->switch_to(main_);
  find_movable();
  if (movable_.empty()) {
    // Who has yielded may see something new all the same.
    for (Thread& each : threads_) each.yielded = false;
    find_movable();
  }
  if (movable_.empty()) {
    abandon("every thread waits");
    find_movable();
  }
  const bool costs = movable_[0] == current_ && steps_ > threads_.size();
  switch_to(movable_[choose(movable_.size(), costs)]);
}

void Explorer::abandon(const std::string& why) {
  fail(why);
  abandoned_ = true;
}

void Explorer::fail(const std::string& what) {
  Explorer& self = *active_;
  if (self.verdict_.broken.empty()) self.verdict_.broken = what;
  if (self.tracing_) self.verdict_.trace += "broken: " + what + "\n";
}

void Explorer::note(const char* what, const void* place) {
  if (!tracing_ || steps_ > kMostTraced) return;
  char line[80];
  snprintf(line, sizeof line, "thread %zu: %s %p\n", current_, what, place);
  verdict_.trace += line;
}

Explorer::Lock& Explorer::find_lock(pthread_mutex_t* mutex) {
  for (Lock& each : locks_) {
    if (each.mutex == mutex) return each;
  }
  locks_.push_back({mutex, kNobody, MemoryView()});
  return locks_.back();
}

int Explorer::lock(pthread_mutex_t* mutex) {
  if (find_lock(mutex).owner == current_) return EDEADLK;
  if (abandoned_ && find_lock(mutex).owner != kNobody) return EDEADLK;
  step("lock", mutex, [this, mutex] { return find_lock(mutex).owner == kNobody || abandoned_; });
  Lock& lock = find_lock(mutex);
  if (lock.owner != kNobody) return EDEADLK;  // no exception passes a call from C
  lock.owner = current_;
  view().raise(lock.view);
  return 0;
}

int Explorer::unlock(pthread_mutex_t* mutex) {
  Lock& lock = find_lock(mutex);
  if (lock.owner != current_) return EPERM;
  lock.view.raise(view());
  lock.owner = kNobody;
  changed();
  return 0;
}

}  // namespace tarn_test
