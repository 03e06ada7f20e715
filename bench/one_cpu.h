// OneCpu: keeps the process on one CPU, its threads in turn.
#ifndef TARN_BENCH_ONE_CPU_H_
#define TARN_BENCH_ONE_CPU_H_

#include <sched.h>

namespace bench {

// For what several threads do in turn: otherwise it depends on where the scheduler puts them
// whether a thread sleeps between two steps of another one, which changes the figures twofold. Nor
// does a thread that is woken take the CPU from the one that woke it, so that the figures are what
// both have to do, and not how often they take turns. All threads of the process go back to where
// and how they may run at the end.
class OneCpu {
 public:
  OneCpu();
  ~OneCpu();
  OneCpu(const OneCpu&) = delete;
  OneCpu& operator=(const OneCpu&) = delete;

 private:
  cpu_set_t before_;
  int policy_before_;
};

}  // namespace bench

#endif  // TARN_BENCH_ONE_CPU_H_
