// Explorer: goes through the ways in which a few threads can take turns.
#ifndef TARN_TESTS_INTERLEAVE_EXPLORER_H_
#define TARN_TESTS_INTERLEAVE_EXPLORER_H_

#include <pthread.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/interleave/memory_view.h"
#include "tests/sim/fiber.h"

namespace tarn_test {

// What a few threads do to one piece of the library. Made anew for each run.
class Scenario {
 public:
  virtual ~Scenario() = default;
  // The body of thread `number`, from 0.
  virtual void run(size_t number) = 0;
  // Once all threads have ended.
  virtual void finish() {}
};

struct Verdict {
  size_t runs = 0;
  std::string broken;    // the first rule that did not hold; empty: all held in every run
  std::string schedule;  // of that run, for Explorer::replay
  std::string trace;     // of that run
};

// Runs a scenario again and again, depth first through everything that can come out differently:
// which thread takes the next step, and which value a load sees of those that the memory model
// allows. Steps are the operations of ModelAtomic and ModelEvent, locks, sched_yield() and
// let_others_move(); what stands between two steps happens at once. The threads are fibers of one
// system thread.
//
// To go on with the same thread, and to see the newest value, is free; anything else is a
// deviation, of which a run makes a given number at most. Where a thread has to wait or has ended,
// every other one follows without that. A thread that yields goes on when another one has changed
// something.
class Explorer {
 public:
  using Make = std::function<std::unique_ptr<Scenario>()>;

  // The one whose threads are running, or null: then locks are locks and atomics are values.
  static Explorer* running() { return running_; }
  // A rule is broken. The run goes on to its end. Also while a scenario is made or finishes.
  static void fail(const std::string& what);

  Explorer(size_t threads, size_t deviations, Make make);
  Explorer(const Explorer&) = delete;
  Explorer& operator=(const Explorer&) = delete;

  // Until a rule is broken, or everything has been tried. With TARN_INTERLEAVE_SCHEDULE in the
  // environment only that run.
  Verdict explore();
  Verdict replay(const std::string& schedule);

  // From inside a run: for what scenarios are made of.

  // Somebody else may move here, and has to unless `can_go_on`. `what` and `place` are for the
  // trace.
  void step(const char* what, const void* place, std::function<bool()> can_go_on = nullptr);
  // Goes on once something has changed since the last time, so that a loop of looks has an end.
  void yield();
  void changed() { ++changes_; }
  // One of `count`, 0 first; the others are deviations if they are said to cost.
  size_t choose(size_t count, bool costs);

  int lock(pthread_mutex_t* mutex);
  int unlock(pthread_mutex_t* mutex);

  // What the running thread knows of the memory.
  MemoryView& view() { return threads_[current_].view; }
  size_t new_place() { return places_++; }

 private:
  struct Thread {
    std::unique_ptr<tarn_sim::Fiber> fiber;
    bool done = false;
    bool yielded = false;
    size_t looked = 0;  // changes_ when it last went on after a yield
    std::function<bool()> can_go_on;
    MemoryView view;
  };
  struct Choice {
    size_t taken;
    size_t count;
  };
  struct Lock {
    pthread_mutex_t* mutex;
    size_t owner;
    MemoryView view;
  };
  struct Abandoned {};

  static constexpr size_t kNobody = ~size_t{0};
  static constexpr size_t kMostSteps = 500;  // of a run; more are a loop without end
  static constexpr size_t kMostTraced = 200;

  void run_once();
  void begin_run();
  // The threads get to their first steps one after the other; from there on it is a choice.
  bool begin_next_thread();
  // Makes path_ the next one; false after the last.
  bool next_path();
  std::string schedule() const;
  void run_thread(size_t number);
  // Lets somebody move who can; returns when this thread is to.
  void hand_over();
  void find_movable();
  void switch_to(size_t next);
  bool can_move(size_t number) const;
  bool all_done() const;
  // Ends a run that has no end of its own: nobody waits any more, but throws.
  void abandon(const std::string& why);
  void note(const char* what, const void* place);
  Lock& find_lock(pthread_mutex_t* mutex);

  static Explorer* active_;
  static Explorer* running_;

  const size_t deviations_;
  const Make make_;
  tarn_sim::Fiber main_;
  std::vector<Thread> threads_;
  std::vector<Choice> path_;
  std::unique_ptr<Scenario> scenario_;
  Verdict verdict_;
  bool tracing_ = false;
  std::vector<size_t> movable_;  // the running thread first, if it is among them

  // Of this run.
  size_t at_ = 0;  // in path_
  size_t deviated_ = 0;
  size_t begun_ = 0;
  size_t steps_ = 0;
  size_t changes_ = 0;
  size_t places_ = 0;
  size_t current_ = 0;
  bool abandoned_ = false;
  std::vector<Lock> locks_;
};

// One more place where somebody else may move.
inline void let_others_move() { Explorer::running()->step("let others move", nullptr); }

inline void expect(bool holds, const char* rule) {
  if (!holds) Explorer::fail(rule);
}

}  // namespace tarn_test

#endif  // TARN_TESTS_INTERLEAVE_EXPLORER_H_
