// A look into sessions that the interface does not offer.
#ifndef TARN_TESTS_SIM_INTROSPECTION_H_
#define TARN_TESTS_SIM_INTROSPECTION_H_

#include <cstddef>
#include <cstdint>

#include "tests/sim/locks.h"

namespace tarn_sim {

struct WindowUse {
  unsigned int counted = 0;  // packets that the send window says it keeps
  size_t kept = 0;           // and those in its buckets
  size_t early = 0;          // packets in the receive buffer
  size_t listed = 0;         // numbers to acknowledge
  size_t withheld = 0;       // packets of messages that wait for the session to be resumed
  size_t queued = 0;         // bytes that wait for room in the send window
  size_t queued_messages = 0;
  bool changing = false;  // somebody holds the send window's lock
};

// Windows of a session that has not been deleted. Nothing is locked: no other task runs, and none
// stops in the middle of a container.
WindowUse look_into(void* session, const Locks& locks);

// By how many milliseconds the most delayed repeating timer is late at `tick`. Requires: the worker
// has been started.
uint32_t timers_late_ms(uint32_t tick);

// Whether the handle stands for a session.
bool is_registered(void* session);

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_INTROSPECTION_H_
