#include "tests/sim/session_socket.h"

#include <utility>

#include "tarn/io.h"
#include "tests/sim/boundary.h"
#include "tests/sim/failure.h"

namespace tarn_sim {
namespace {

// A few turns of the I/O thread and what holds it up meanwhile; asleep it would take 10 s.
constexpr uint64_t kLongestClose = 2 * kNsPerSecond;

}  // namespace

void* SessionSocket::create(const Ports& ports) {
  const InsideLibrary inside;
  return tarn_create_udp_io("127.0.0.1", ports.peer, ports.own);
}

SessionSocket::SessionSocket(World& world, Endpoint& endpoint, void* handle, const Ports& ports)
    : world_(world), endpoint_(endpoint), handle_(handle), ports_(ports) {
  world_.network().set_carrier(ports_.own, ports_.peer, this);
}

SessionSocket::~SessionSocket() { close(); }

void SessionSocket::arrive(std::string datagram) {
  world_.network().arrive(ports_.peer, ports_.own, std::move(datagram));
}

void SessionSocket::close() {
  if (!std::exchange(open_, false)) return;
  endpoint_.cut_off();
  const uint64_t begun = world_.scheduler().now();
  {
    const InsideLibrary inside;
    tarn_destroy_io(handle_);
  }
  world_.network().remove_carrier(ports_.own, ports_.peer);
  if (world_.scheduler().now() - begun > kLongestClose) {
    fail("{}: the I/O thread is not woken for a handle that is destroyed", endpoint_.name());
  }
  world_.event("{} socket closed", endpoint_.name());
}

void SessionSocket::sent(std::string_view datagram, bool accepted) {
  endpoint_.sent(datagram, accepted);
}

void SessionSocket::received(std::string_view datagram) {
  endpoint_.begin_feed(std::string(datagram));
}

void SessionSocket::taken() { endpoint_.end_feed(); }

}  // namespace tarn_sim
