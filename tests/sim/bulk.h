// How fast a large amount of data gets through.
#ifndef TARN_TESTS_SIM_BULK_H_
#define TARN_TESTS_SIM_BULK_H_

#include "tests/sim/random.h"
#include "tests/sim/world.h"

namespace tarn_sim {

// Megabits of payload a second with windows of so many segments at both ends, through a bottleneck
// of 100 Mbit/s with a queue of 64 KB: of transfers of 5,000 messages of 1,370 bytes, each from its
// first send to its last delivery. Messages go out whenever the send window has room.
double measure_bulk(World& world, Random random, unsigned int window, unsigned int transfers);

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_BULK_H_
