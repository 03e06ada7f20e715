// PollList: what the poller waits for, and what it runs then, as of one moment.
#ifndef TARN_TARN_IO_POLL_LIST_H_
#define TARN_TARN_IO_POLL_LIST_H_

#include <poll.h>
#include <stddef.h>
#include <stdint.h>

#include <vector>

#include "oxutils/callback.h"
#include "oxutils/relaxed.h"
#include "tarn_io/ready_descriptor.h"

// Serves one pass after another until something changes. Filled by TarnPoller under its lock and
// never altered from then on, so that a pass uses it without; only outdate() may come from any
// thread. It may have the last reference to a function that was replaced or emptied since: then it
// is to be dropped with no lock held.
class PollList {
 public:
  void reserve(size_t count);
  // Requires: descriptors come in ascending order.
  void add(int fd, short events, uint32_t generation, const oxutils::Function& read_func);

  // The list is not what is watched any more.
  void outdate() { outdated_ = true; }
  bool is_outdated() const { return outdated_; }

  // Waits by poll() for at most `timeout` milliseconds, then appends what is ready in ascending
  // order of descriptors. Does not return at once when it fails. `memory` is for the call.
  WaitOutcome wait(int timeout, std::vector<pollfd>& memory,
                   std::vector<ReadyDescriptor>& ready) const;

  // The function for a descriptor's data, or null.
  const oxutils::Function* read_func(const ReadyDescriptor& ready) const;

 private:
  std::vector<pollfd> fds_;
  std::vector<uint32_t> generations_;          // of the watch of each of them
  std::vector<oxutils::Function> read_funcs_;  // empty where nobody reads
  oxutils::relaxed<bool> outdated_{false};
};

#endif  // TARN_TARN_IO_POLL_LIST_H_
