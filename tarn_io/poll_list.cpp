#include "tarn_io/poll_list.h"

#include <errno.h>

#include <algorithm>

namespace {

// ms after which a wait that could not begin is tried again
constexpr int kFailurePause = 20;

}  // namespace

void PollList::reserve(size_t count) {
  fds_.reserve(count);
  generations_.reserve(count);
  read_funcs_.reserve(count);
}

void PollList::add(int fd, short events, uint32_t generation, const oxutils::Function& read_func) {
  fds_.push_back({fd, events, 0});
  generations_.push_back(generation);
  read_funcs_.push_back(read_func);
}

WaitOutcome PollList::wait(int timeout, std::vector<pollfd>& memory,
                           std::vector<ReadyDescriptor>& ready) const {
  memory = fds_;
  const int count = ::poll(memory.data(), static_cast<nfds_t>(memory.size()), timeout);
  if (count < 0 && errno == EINTR) return WaitOutcome::kInterrupted;
  if (count < 0) {
    // It fails again at once while more is watched than the limit on descriptors allows.
    ::poll(nullptr, 0, std::min(timeout, kFailurePause));
    return WaitOutcome::kFailed;
  }
  for (size_t i = 0; i < memory.size(); ++i) {
    if (memory[i].revents > 0) ready.push_back({memory[i].fd, memory[i].revents, generations_[i]});
  }
  return count > 0 ? WaitOutcome::kReady : WaitOutcome::kNothing;
}

const oxutils::Function* PollList::read_func(const ReadyDescriptor& ready) const {
  const auto found = std::lower_bound(fds_.begin(), fds_.end(), ready.fd,
                                      [](const pollfd& each, int fd) { return each.fd < fd; });
  if (found == fds_.end() || found->fd != ready.fd) return nullptr;
  const auto place = static_cast<size_t>(found - fds_.begin());
  const bool is_same = generations_[place] == ready.generation && read_funcs_[place];
  return is_same ? &read_funcs_[place] : nullptr;
}
