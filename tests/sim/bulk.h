// How fast a large amount of data gets through.
#ifndef TARN_TESTS_SIM_BULK_H_
#define TARN_TESTS_SIM_BULK_H_

#include "tests/sim/pair.h"
#include "tests/sim/random.h"
#include "tests/sim/world.h"

namespace tarn_sim {

// Megabits of payload a second: of transfers of 5,000 messages of 1,370 bytes, each from its first
// send to its last delivery. Messages go out whenever the send window has room.
double measure_bulk(World& world, Random random, const Pair::Plan& plan, unsigned int transfers);

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_BULK_H_
