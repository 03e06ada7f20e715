// How long small messages take, and how many bytes they cost on the wire.
#ifndef TARN_TESTS_SIM_LATENCY_H_
#define TARN_TESTS_SIM_LATENCY_H_

#include <cstddef>

#include "tests/sim/random.h"
#include "tests/sim/world.h"

namespace tarn_sim {

struct Latency {
  // From the call that sends a message to the callback that gets it, after all those before it.
  double p50_ms = 0;
  double p99_ms = 0;
  // Everything that either end sends, re-sends, acknowledgements and the 28 bytes of UDP and IP in
  // front of each datagram included, for each byte of a message.
  double wire_bytes_per_payload_byte = 0;
};

// A message of 200 bytes every 20 ms, at the default settings, over ways that lose this share of
// the datagrams. Sends at least so many messages. One that is due while the send window is full is
// sent as soon as it has room.
Latency measure_latency(World& world, Random random, double loss, size_t messages);

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_LATENCY_H_
