// The paths that are counted, by where they run.
#ifndef TARN_TESTS_INSTRUCTIONS_PATHS_H_
#define TARN_TESTS_INSTRUCTIONS_PATHS_H_

#include "tests/instructions/resting_worker.h"
#include "tests/support/virtual_clock.h"

namespace instructions {

// The worker rests while these run.
void count_crowd();
void count_messages();
void count_datagrams();
void count_calls(RestingWorker& worker);
void count_sockets();

// The worker's own work. Requires: the worker does not rest.
void count_turns(tarn_test::VirtualClock& clock);

}  // namespace instructions

#endif  // TARN_TESTS_INSTRUCTIONS_PATHS_H_
