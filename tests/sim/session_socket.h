// SessionSocket: one of the library's UDP handles, which serves an endpoint.
#ifndef TARN_TESTS_SIM_SESSION_SOCKET_H_
#define TARN_TESTS_SIM_SESSION_SOCKET_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "tests/sim/endpoint.h"
#include "tests/sim/fake_network.h"
#include "tests/sim/world.h"

namespace tarn_sim {

struct Ports {
  uint16_t own = 0;
  uint16_t peer = 0;
};

// Sits between the handle's socket and the endpoint whose session is attached to it: what the
// library sends goes to the endpoint, which puts it on its link, and what the library reads is
// announced to the endpoint as about to be taken.
class SessionSocket : private Carrier {
 public:
  // A new handle of the library's, not yet anybody's.
  static void* create(const Ports& ports);

  // Takes `handle` over, whose socket has these ports.
  SessionSocket(World& world, Endpoint& endpoint, void* handle, const Ports& ports);
  ~SessionSocket() override;
  SessionSocket(const SessionSocket&) = delete;
  SessionSocket& operator=(const SessionSocket&) = delete;

  void* handle() const { return handle_; }
  // The link has brought a datagram as far as the socket.
  void arrive(std::string datagram);
  // Once; the handle is destroyed, and nothing is announced any more.
  void close();

 private:
  void sent(std::string_view datagram, bool accepted) override;
  void received(std::string_view datagram) override;
  void taken() override;

  World& world_;
  Endpoint& endpoint_;
  void* const handle_;
  const Ports ports_;
  bool open_ = true;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_SESSION_SOCKET_H_
