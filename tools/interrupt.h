#ifndef TARN_TOOLS_INTERRUPT_H_
#define TARN_TOOLS_INTERRUPT_H_

#include <poll.h>

#include <chrono>
#include <vector>

namespace tarn_tool {

// SIGINT and SIGTERM, delivered only while the main thread waits in wait_ready().

// Blocks both signals for this thread and every thread that it starts later, and ignores SIGPIPE.
// Call it before any other thread exists.
void catch_interrupts();

// The signal that asked for the end, or 0. A second signal ends the process at the next wait.
int interrupted_by();

// Waits until one of `polls` is ready, a signal arrives or `timeout` is over; 0 does not wait. The
// results stand in `revents`.
void wait_ready(std::vector<pollfd>& polls, std::chrono::microseconds timeout);

}  // namespace tarn_tool

#endif  // TARN_TOOLS_INTERRUPT_H_
