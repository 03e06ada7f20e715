// The waits of the simulated network.
#include <errno.h>

#include <utility>

#include "tests/sim/fake_network.h"

namespace tarn_sim {
namespace {

constexpr short kAlwaysTold = POLLERR | POLLHUP | POLLNVAL;

}  // namespace

short FakeNetwork::readiness(const FakeSocket& socket) const {
  int ready = socket.error != 0 ? POLLERR : 0;
  if (!socket.stream) {
    if (!socket.datagrams.empty()) ready |= POLLIN;
    return static_cast<short>(ready | POLLOUT);
  }
  if (socket.listening) return static_cast<short>(socket.waiting.empty() ? 0 : POLLIN);
  if (socket.reset) return static_cast<short>(ready | POLLIN | POLLOUT | POLLHUP);
  if (!socket.connected) return static_cast<short>(ready | POLLOUT | POLLHUP);
  if (!socket.bytes.empty() || socket.ended) ready |= POLLIN;
  const FakeSocketPtr other = socket.other.lock();
  if (other == nullptr || other->closed || has_room(*other)) ready |= POLLOUT;
  return static_cast<short>(ready);
}

int FakeNetwork::look(pollfd* fds, const Polled& polled) const {
  int count = 0;
  for (size_t i = 0; i < polled.size(); ++i) {
    fds[i].revents = 0;
    // A socket that is closed while it is waited for says nothing any more.
    if (polled[i] == nullptr || polled[i]->closed) continue;
    fds[i].revents = static_cast<short>(readiness(*polled[i]) & (fds[i].events | kAlwaysTold));
    if (fds[i].revents != 0) ++count;
  }
  return count;
}

// A signal; or a datagram that turns out to be damaged when it is read, and is not there then.
int FakeNetwork::interrupt(pollfd* fds, const Polled& polled) {
  for (size_t i = 0; i < polled.size(); ++i) fds[i].revents = 0;
  const size_t chosen = random_.between(0, polled.size());
  if (chosen == polled.size() || polled[chosen] == nullptr || polled[chosen]->stream) return -EINTR;
  fds[chosen].revents = static_cast<short>(fds[chosen].events & POLLIN);
  return fds[chosen].revents != 0 ? 1 : -EINTR;
}

int FakeNetwork::poll(pollfd* fds, nfds_t count, int timeout_ms) {
  done_reading();
  spin_watch_.waiting(scheduler_.now());
  Polled polled;
  for (nfds_t i = 0; i < count; ++i) {
    polled.push_back(fds[i].fd >= kFirstDescriptor ? find(fds[i].fd) : nullptr);
  }
  if (scheduler_.is_spurious()) return interrupt(fds, polled);
  const uint64_t deadline =
      timeout_ms < 0 ? kNever : scheduler_.now() + static_cast<uint64_t>(timeout_ms) * kNsPerMs;
  for (;;) {
    const int ready = look(fds, polled);
    if (ready > 0 || scheduler_.now() >= deadline) return ready;
    scheduler_.block(this, deadline);
  }
}

int FakeNetwork::select(int count, fd_set* read, fd_set* write, fd_set* error,
                        const timeval* timeout) {
  std::vector<pollfd> fds;
  for (int fd = kFirstDescriptor; fd < count; ++fd) {
    const int events = (FD_ISSET(fd, read) ? POLLIN : 0) | (FD_ISSET(fd, write) ? POLLOUT : 0) |
                       (FD_ISSET(fd, error) ? POLLERR : 0);
    if (events != 0) fds.push_back({fd, static_cast<short>(events), 0});
  }
  const int ms =
      timeout == nullptr ? -1 : static_cast<int>(timeout->tv_sec * 1000 + timeout->tv_usec / 1000);
  const int result = poll(fds.data(), fds.size(), ms);
  if (result < 0) return result;
  FD_ZERO(read);
  FD_ZERO(write);
  FD_ZERO(error);
  for (const pollfd& each : fds) {
    if ((each.revents & POLLIN) != 0) FD_SET(each.fd, read);
    if ((each.revents & POLLOUT) != 0) FD_SET(each.fd, write);
    if ((each.revents & POLLERR) != 0) FD_SET(each.fd, error);
  }
  return result;
}

}  // namespace tarn_sim
