// What arrives, and how fast, of what sessions with options send.
#ifndef TARN_TESTS_SIM_DELIVERY_H_
#define TARN_TESTS_SIM_DELIVERY_H_

#include <cstdint>

#include "tests/sim/controlled_pair.h"
#include "tests/sim/random.h"
#include "tests/sim/world.h"

namespace tarn_sim {

// The share that arrives of a message of 200 bytes `per_second` times a second, for 60 s; with a
// minute more for what is under way by then.
double measure_stream(World& world, const ControlledPair::Plan& plan, Random random,
                      unsigned int per_second);

// Whether one message arrives within ten minutes.
bool measure_message(World& world, const ControlledPair::Plan& plan, Random random, size_t size);

// Megabits of payload a second of `messages` messages of 1,370 bytes, sent as fast as they are
// taken. Nothing if they are not there after ten minutes.
double measure_transfer(World& world, const ControlledPair::Plan& plan, Random random,
                        unsigned int messages);

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_DELIVERY_H_
