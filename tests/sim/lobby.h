// Lobby: a UDP listener of the library, and who is expected there.
#ifndef TARN_TESTS_SIM_LOBBY_H_
#define TARN_TESTS_SIM_LOBBY_H_

#include <cstdint>
#include <functional>
#include <map>

#include "tests/sim/world.h"

namespace tarn_sim {

// Hands each new peer's handle to whoever expects that peer, once; further handles are destroyed
// where they come, on the I/O thread.
class Lobby {
 public:
  using Welcome = std::function<void(void* io)>;

  explicit Lobby(World& world) : world_(world) {}
  Lobby(const Lobby&) = delete;
  Lobby& operator=(const Lobby&) = delete;

  // Begins to listen, on a port of its own each time.
  void open();
  void close();
  uint16_t port() const { return port_; }
  // `welcome` runs on the I/O thread.
  void expect(uint16_t peer_port, Welcome welcome) { expected_[peer_port] = std::move(welcome); }

 private:
  static void on_peer(void* io, void* self);
  void welcome(void* io);

  World& world_;
  void* listener_ = nullptr;
  uint16_t port_ = 0;
  std::map<uint16_t, Welcome> expected_;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_LOBBY_H_
