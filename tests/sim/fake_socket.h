// FakeSocket: what the simulated system keeps of one socket.
#ifndef TARN_TESTS_SIM_FAKE_SOCKET_H_
#define TARN_TESTS_SIM_FAKE_SOCKET_H_

#include <sys/epoll.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>

namespace tarn_sim {

// Host byte order.
struct Address {
  uint32_t ip = 0;
  uint16_t port = 0;
};

constexpr uint32_t kLoopback = 0x7F000001;

struct FakeSocket {
  // By descriptor, what a set watches and tells of it.
  struct Watch {
    std::weak_ptr<FakeSocket> socket;
    epoll_event event;
  };
  using Watched = std::map<int, Watch>;

  struct Datagram {
    uint16_t from;
    std::string bytes;
  };

  explicit FakeSocket(bool is_stream) : stream(is_stream) {}

  bool is_at(uint16_t port) const { return !closed && local.port == port; }
  bool is_connected_to(uint16_t port) const {
    return connected && peer.ip == kLoopback && peer.port == port;
  }

  const bool stream;
  bool non_blocking = false;
  bool reuses_address = false;
  bool closed = false;
  Address local;  // port 0: not bound
  Address peer;
  bool connected = false;
  int error = 0;             // SO_ERROR
  uint64_t bound_since = 0;  // counts binds: later ones are preferred

  std::deque<Datagram> datagrams;
  size_t queued = 0;  // bytes that they take up

  bool listening = false;
  std::deque<std::shared_ptr<FakeSocket>> waiting;  // connections not yet accepted
  std::weak_ptr<FakeSocket> other;                  // the connection's other end
  std::string bytes;                                // that have come
  bool ended = false;                               // nothing comes any more
  bool reset = false;                               // nor does anything go out

  std::unique_ptr<Watched> watched;  // of what is no socket, but a set
};

using FakeSocketPtr = std::shared_ptr<FakeSocket>;

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_FAKE_SOCKET_H_
