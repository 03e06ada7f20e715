#include "bench/one_cpu.h"

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace bench {
namespace {

// Threads that start later are where the one is that starts them.
void move_all_threads(const cpu_set_t& cpus) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    const auto thread = static_cast<pid_t>(std::stol(task.path().filename()));
    sched_setaffinity(thread, sizeof cpus, &cpus);
  }
}

}  // namespace

OneCpu::OneCpu() {
  sched_getaffinity(0, sizeof before_, &before_);
  cpu_set_t here;
  CPU_ZERO(&here);
  CPU_SET(static_cast<unsigned int>(sched_getcpu()), &here);
  move_all_threads(here);
}

OneCpu::~OneCpu() { move_all_threads(before_); }

}  // namespace bench
