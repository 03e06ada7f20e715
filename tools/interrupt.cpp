#include "tools/interrupt.h"

#include <csignal>
#include <ctime>

namespace tarn_tool {
namespace {

volatile std::sig_atomic_t caught_signal = 0;
sigset_t waiting_mask;

extern "C" void remember_signal(int number) { caught_signal = number; }

}  // namespace

void catch_interrupts() {
  std::signal(SIGPIPE, SIG_IGN);
  sigset_t blocked;
  sigemptyset(&blocked);
  struct sigaction action = {};
  action.sa_handler = remember_signal;
  // The handler serves once: whoever asks twice does not want to wait for a farewell.
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int number : {SIGINT, SIGTERM}) {
    sigaddset(&blocked, number);
    sigaction(number, &action, nullptr);
  }
  pthread_sigmask(SIG_BLOCK, &blocked, &waiting_mask);
  sigdelset(&waiting_mask, SIGINT);
  sigdelset(&waiting_mask, SIGTERM);
}

int interrupted_by() { return caught_signal; }

void wait_ready(std::vector<pollfd>& polls, std::chrono::microseconds timeout) {
  timespec span = {};
  span.tv_sec = static_cast<time_t>(timeout.count() / 1000000);
  span.tv_nsec = static_cast<long>(timeout.count() % 1000000) * 1000;
  if (ppoll(polls.data(), polls.size(), &span, &waiting_mask) >= 0) return;
  for (pollfd& entry : polls) entry.revents = 0;
}

}  // namespace tarn_tool
