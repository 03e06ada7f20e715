// TCP on the simulated network.
#include <errno.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "tests/sim/failure.h"
#include "tests/sim/fake_network.h"

namespace tarn_sim {
namespace {

constexpr size_t kStreamQueue = 65536;

}  // namespace

bool FakeNetwork::has_room(const FakeSocket& socket) { return socket.bytes.size() < kStreamQueue; }

int FakeNetwork::connect_refused(FakeSocket& socket) {
  if (!socket.non_blocking) return -ECONNREFUSED;
  socket.error = ECONNREFUSED;
  socket.reset = socket.ended = true;
  changed();
  return -EINPROGRESS;
}

int FakeNetwork::connect_stream(const FakeSocketPtr& socket) {
  FakeSocketPtr listener;
  for (const auto& entry : sockets_) {
    const FakeSocket& each = *entry.second;
    if (each.stream && each.listening && each.is_at(socket->peer.port)) listener = entry.second;
  }
  if (listener == nullptr || socket->peer.ip != kLoopback) return connect_refused(*socket);
  const auto accepted = std::make_shared<FakeSocket>(true);
  accepted->local = listener->local;
  accepted->peer = socket->local;
  accepted->other = socket;
  socket->other = accepted;
  accepted->connected = socket->connected = true;
  listener->waiting.push_back(accepted);
  changed();
  return socket->non_blocking ? -EINPROGRESS : 0;
}

// The other end reads what is on the way and then the end, unless something was left unread here.
void FakeNetwork::hang_up(FakeSocket& socket) {
  const FakeSocketPtr other = socket.other.lock();
  if (other == nullptr) return;
  other->ended = true;
  if (socket.bytes.empty()) return;
  other->error = ECONNRESET;
  other->reset = true;
}

// Nobody is there to take it; the answer to it says so.
long FakeNetwork::send_too_late(FakeSocket& socket, size_t size) {
  socket.error = EPIPE;
  socket.reset = true;
  changed();
  return static_cast<long>(size);
}

long FakeNetwork::send_stream(FakeSocket& socket, std::string_view bytes, int flags) {
  if ((flags & MSG_NOSIGNAL) == 0) fail("a send on a stream that may raise a signal");
  for (;;) {
    if (socket.error != 0) return -std::exchange(socket.error, 0);
    const FakeSocketPtr other = socket.other.lock();
    if (socket.reset) return -EPIPE;
    if (other == nullptr || other->closed) return send_too_late(socket, bytes.size());
    if (has_room(*other)) {
      const size_t size = std::min(bytes.size(), kStreamQueue - other->bytes.size());
      other->bytes.append(bytes.substr(0, size));
      spin_watch_.moved();
      changed();
      return static_cast<long>(size);
    }
    if (!wait(socket, flags)) return -EAGAIN;
  }
}

long FakeNetwork::receive_stream(FakeSocket& socket, char* into, size_t room, int flags) {
  while (socket.bytes.empty()) {
    if (socket.error != 0) return -std::exchange(socket.error, 0);
    if (socket.ended) return 0;
    if (!socket.connected) return -ENOTCONN;
    if (!wait(socket, flags)) return -EAGAIN;
  }
  const size_t size = std::min(room, socket.bytes.size());
  std::memcpy(into, socket.bytes.data(), size);
  if ((flags & MSG_PEEK) == 0) socket.bytes.erase(0, size);
  spin_watch_.moved();
  changed();
  return static_cast<long>(size);
}

}  // namespace tarn_sim
