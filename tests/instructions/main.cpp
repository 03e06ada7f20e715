// Walks the paths whose instructions are counted; to be run under Callgrind with
// --collect-atstart=no, which writes a dump for each path.
#include <thread>

#include "tarn/tarn.h"
#include "tests/instructions/paths.h"
#include "tests/support/virtual_clock.h"

int main() {
  // Stands still: which timers are due does not depend on how long anything takes.
  tarn_test::VirtualClock clock;
  tarn_init();
  {
    // First: the library's tables stay as large, so that hardly any two of the handles that come
    // after share a place. In a new thread, which gets its memory from where nobody has got any:
    // the places of its handles do not depend on what the worker has done so far.
    const instructions::RestingWorker worker(clock);
    std::thread(instructions::count_crowd).join();
  }
  {
    instructions::RestingWorker worker(clock);
    instructions::count_messages();
    instructions::count_datagrams();
    instructions::count_calls(worker);
    instructions::count_sockets();
  }
  instructions::count_turns(clock);
}
