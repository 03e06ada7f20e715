#include "tests/sim/lobby.h"

#include <utility>

#include "tarn/io.h"
#include "tests/sim/boundary.h"
#include "tests/sim/failure.h"

namespace tarn_sim {

void Lobby::open() {
  port_ = world_.network().reserve_port();
  const InsideLibrary inside;
  listener_ = tarn_start_listen_udp(port_, &Lobby::on_peer, this);
  if (listener_ == nullptr) fail("a listener cannot be started on a free port");
}

void Lobby::close() {
  void* const stopped = std::exchange(listener_, nullptr);
  const InsideLibrary inside;
  tarn_stop_listen(stopped);
}

void Lobby::on_peer(void* io, void* self) {
  const OutsideLibrary outside;
  static_cast<Lobby*>(self)->welcome(io);
}

void Lobby::welcome(void* io) {
  if (world_.locks().held_count() > 0) fail("a lock is held across the new peer callback");
  if (listener_ == nullptr) fail("a peer is reported that no listener waits for");
  const uint16_t peer = world_.network().newest_peer_of(port_);
  world_.event("new peer on port {}", peer);
  const Welcome taker = std::exchange(expected_[peer], nullptr);
  if (taker) {
    taker(io);
    return;
  }
  const InsideLibrary inside;
  tarn_destroy_io(io);
}

}  // namespace tarn_sim
