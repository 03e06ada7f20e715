// UDP on the simulated network.
#include <errno.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "tests/sim/failure.h"
#include "tests/sim/fake_network.h"

namespace tarn_sim {
namespace {

constexpr size_t kLargestDatagram = 65507;
constexpr size_t kReceiveQueue = 212'992;
constexpr size_t kOverhead = 512;  // that each datagram takes in the queue
// Where things go wrong at all:
constexpr double kRefusedShare = 0.01;      // of the sends
constexpr double kStrayShare = 0.5;         // of the sockets that join others on a port
constexpr double kUnreachableShare = 0.02;  // of the moments at which ICMP may come

}  // namespace

void FakeNetwork::set_carrier(uint16_t port, uint16_t peer_port, Carrier* carrier) {
  carriers_[{port, peer_port}] = carrier;
}

void FakeNetwork::remove_carrier(uint16_t port, uint16_t peer_port) {
  Carrier* const removed = carrier_of(port, peer_port);
  if (removed == nullptr) return;
  if (reading_ == removed) std::exchange(reading_, nullptr)->taken();
  carriers_.erase({port, peer_port});
}

Carrier* FakeNetwork::carrier_of(uint16_t port, uint16_t peer_port) const {
  const auto found = carriers_.find({port, peer_port});
  return found != carriers_.end() ? found->second : nullptr;
}

// Whoever waits for the next event, or reads again, is done with what it read before.
void FakeNetwork::done_reading() {
  if (reading_ != nullptr && reader_ == scheduler_.self()) {
    std::exchange(reading_, nullptr)->taken();
  }
}

bool FakeNetwork::goes_wrong() const {
  return faulty_ && scheduler_.preemption().spurious_share > 0;
}

// A host on the way may answer earlier datagrams of a connected socket at any moment.
void FakeNetwork::draw_unreachable(FakeSocket& socket) {
  if (!socket.connected || !goes_wrong() || !random_.chance(kUnreachableShare)) return;
  socket.error = ECONNREFUSED;
  changed();
}

// What is on its way to a port comes to whoever was bound to it last.
void FakeNetwork::draw_stray(uint16_t port) {
  if (goes_wrong() && random_.chance(kStrayShare)) arrive(kStranger, port, "stray");
}

// The error with which a send fails, or 0.
int FakeNetwork::refusal(FakeSocket& socket, size_t size) {
  if (!socket.connected) return EDESTADDRREQ;
  if (socket.error != 0) return std::exchange(socket.error, 0);
  if (size > kLargestDatagram) return EMSGSIZE;
  return goes_wrong() && random_.chance(kRefusedShare) ? EAGAIN : 0;
}

long FakeNetwork::send_datagram(FakeSocket& socket, std::string_view bytes) {
  const int error = refusal(socket, bytes.size());
  if (error == 0) spin_watch_.moved();
  if (Carrier* const carrier = carrier_of(socket.local.port, socket.peer.port)) {
    carrier->sent(bytes, error == 0);
  } else if (error == 0 && socket.peer.ip == kLoopback) {
    arrive(socket.local.port, socket.peer.port, std::string(bytes));
  }
  draw_unreachable(socket);
  return error != 0 ? -error : static_cast<long>(bytes.size());
}

// With the error of an earlier one, the library fails a send of its own accord.
void FakeNetwork::not_sent(int fd, std::string_view bytes) {
  const FakeSocketPtr socket = find(fd);
  Carrier* const carrier = carrier_of(socket->local.port, socket->peer.port);
  if (carrier != nullptr) carrier->sent(bytes, false);
}

// A socket that is connected to the sender comes before one that takes from anybody; of equals, the
// one bound last.
FakeSocketPtr FakeNetwork::receiver(uint16_t from, uint16_t to) const {
  FakeSocketPtr best;
  for (const auto& entry : sockets_) {
    const FakeSocket& each = *entry.second;
    if (each.stream || !each.is_at(to)) continue;
    if (each.connected && !each.is_connected_to(from)) continue;
    if (best == nullptr || std::make_pair(each.connected, each.bound_since) >
                               std::make_pair(best->connected, best->bound_since)) {
      best = entry.second;
    }
  }
  return best;
}

void FakeNetwork::refuse_sender(uint16_t from, uint16_t to) {
  for (const auto& entry : sockets_) {
    FakeSocket& each = *entry.second;
    if (!each.stream && each.is_at(from) && each.is_connected_to(to)) each.error = ECONNREFUSED;
  }
  changed();
}

void FakeNetwork::arrive(uint16_t from, uint16_t to, std::string datagram) {
  const FakeSocketPtr socket = receiver(from, to);
  if (socket == nullptr) {
    refuse_sender(from, to);
    return;
  }
  const size_t size = datagram.size() + kOverhead;
  if (faulty_ && socket->queued + size > kReceiveQueue) return;
  socket->queued += size;
  socket->datagrams.push_back({from, std::move(datagram)});
  draw_unreachable(*socket);
  changed();
}

// What came before a socket was connected may be anybody's, but is not for the session behind it.
void FakeNetwork::announce(const FakeSocket& socket, const Address& from,
                           std::string_view datagram) {
  Carrier* const carrier = carrier_of(socket.local.port, socket.peer.port);
  if (carrier == nullptr) return;
  if (from.port != socket.peer.port) {
    fail("what port {} sent is read for port {}", from.port, socket.peer.port);
  }
  if (datagram.empty()) return;  // the library takes none of these
  reading_ = carrier;
  reader_ = scheduler_.self();
  carrier->received(datagram);
}

long FakeNetwork::receive_datagram(FakeSocket& socket, char* into, size_t room, int flags,
                                   Address& from) {
  done_reading();
  draw_unreachable(socket);
  // The error comes first, whatever was seen a moment ago.
  while (socket.error != 0 || socket.datagrams.empty()) {
    if (socket.error != 0) return -std::exchange(socket.error, 0);
    if (!wait(socket, flags)) return -EAGAIN;
  }
  const FakeSocket::Datagram& first = socket.datagrams.front();
  const size_t size = std::min(room, first.bytes.size());
  std::memcpy(into, first.bytes.data(), size);
  from = {kLoopback, first.from};
  if ((flags & MSG_PEEK) != 0) return static_cast<long>(size);
  socket.queued -= first.bytes.size() + kOverhead;
  socket.datagrams.pop_front();
  spin_watch_.moved();
  return static_cast<long>(size);
}

uint16_t FakeNetwork::newest_peer_of(uint16_t port) const {
  const FakeSocket* newest = nullptr;
  for (const auto& entry : sockets_) {
    const FakeSocket& each = *entry.second;
    if (each.stream || !each.is_at(port) || !each.connected) continue;
    if (newest == nullptr || each.bound_since > newest->bound_since) newest = &each;
  }
  return newest != nullptr ? newest->peer.port : uint16_t{0};
}

}  // namespace tarn_sim
