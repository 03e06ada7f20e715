// What either of the poller's waits tells.
#ifndef TARN_TARN_IO_READY_DESCRIPTOR_H_
#define TARN_TARN_IO_READY_DESCRIPTOR_H_

#include <stdint.h>

// A watched descriptor that something has happened to.
struct ReadyDescriptor {
  int fd;
  short revents;        // of poll()
  uint32_t generation;  // of the watch
};

enum class WaitOutcome { kReady, kNothing, kInterrupted, kFailed };

#endif  // TARN_TARN_IO_READY_DESCRIPTOR_H_
