#ifndef TARN_TOOLS_EXIT_STATUS_H_
#define TARN_TOOLS_EXIT_STATUS_H_

namespace tarn_tool {

// What the process tells its caller. A signal that ended the work is kInterrupted + its number.
enum ExitStatus : int {
  kSuccess = 0,
  kFailure = 1,     // bad arguments, or a file or socket that could not be used
  kMismatch = 2,    // the two ends do not agree on size or SHA-256
  kPeerEnded = 3,   // the peer gave up, or did not keep to the protocol
  kPeerSilent = 4,  // nothing was heard from the peer for the timeout
  kRefused = 5,     // inspect: the datagram, or a part of it, would be refused
  kInterrupted = 128
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_EXIT_STATUS_H_
