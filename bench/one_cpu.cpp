#include "bench/one_cpu.h"

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace bench {
namespace {

// Threads that start later are where the one is that starts them.
void move_all_threads(const cpu_set_t& cpus, int policy) {
  const sched_param priority = {};
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    const auto thread = static_cast<pid_t>(std::stol(task.path().filename()));
    sched_setaffinity(thread, sizeof cpus, &cpus);
    sched_setscheduler(thread, policy, &priority);
  }
}

}  // namespace

OneCpu::OneCpu() : policy_before_(sched_getscheduler(0)) {
  sched_getaffinity(0, sizeof before_, &before_);
  cpu_set_t here;
  CPU_ZERO(&here);
  CPU_SET(static_cast<unsigned int>(sched_getcpu()), &here);
  move_all_threads(here, SCHED_BATCH);
}

OneCpu::~OneCpu() { move_all_threads(before_, policy_before_); }

}  // namespace bench
