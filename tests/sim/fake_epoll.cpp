// Sets of descriptors that the simulated network watches.
#include <errno.h>
#include <sys/epoll.h>

#include <memory>
#include <utility>
#include <vector>

#include "tests/sim/fake_network.h"

namespace tarn_sim {

int FakeNetwork::epoll_create() {
  auto set = std::make_shared<FakeSocket>(true);
  set->watched = std::make_unique<FakeSocket::Watched>();
  return add(std::move(set));
}

// A socket that was closed while it was watched is watched no more; its number may be another's.
int FakeNetwork::epoll_control(int set, int operation, int fd, const epoll_event& event) {
  FakeSocket::Watched& watched = *find(set)->watched;
  const FakeSocketPtr socket = find(fd);
  const auto known = watched.find(fd);
  const bool is_known = known != watched.end() && known->second.socket.lock() == socket;
  if (operation == EPOLL_CTL_ADD) {
    if (is_known) return -EEXIST;
  } else if (!is_known) {
    return -ENOENT;
  }
  if (operation == EPOLL_CTL_DEL) {
    watched.erase(known);
  } else {
    watched[fd] = {socket, event};
  }
  changed();
  return 0;
}

int FakeNetwork::look(const FakeSocket::Watched& watched, epoll_event* events, int most) const {
  int count = 0;
  for (const auto& each : watched) {
    const FakeSocketPtr socket = each.second.socket.lock();
    if (count == most || socket == nullptr || socket->closed) continue;
    const uint32_t wanted = each.second.event.events | EPOLLERR | EPOLLHUP;
    const uint32_t ready = static_cast<uint32_t>(readiness(*socket)) & wanted;
    if (ready == 0) continue;
    events[count] = each.second.event;
    events[count++].events = ready;
  }
  return count;
}

int FakeNetwork::epoll_wait(int set, epoll_event* events, int most, int timeout_ms) {
  done_reading();
  spin_watch_.waiting(scheduler_.now());
  const FakeSocketPtr held = find(set);
  if (scheduler_.is_spurious()) return -EINTR;
  const uint64_t deadline = scheduler_.now() + static_cast<uint64_t>(timeout_ms) * kNsPerMs;
  for (;;) {
    const int ready = look(*held->watched, events, most);
    if (ready > 0 || scheduler_.now() >= deadline) return ready;
    scheduler_.block(this, deadline);
  }
}

}  // namespace tarn_sim
