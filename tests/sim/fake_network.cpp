#include "tests/sim/fake_network.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>

#include "tests/sim/failure.h"

namespace tarn_sim {
namespace {

Address read_address(const sockaddr* from) {
  sockaddr_in address;
  std::memcpy(&address, from, sizeof address);
  return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

void write_address(const Address& from, sockaddr* into, socklen_t* size) {
  if (into == nullptr) return;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(from.ip);
  address.sin_port = htons(from.port);
  std::memcpy(into, &address, std::min<size_t>(*size, sizeof address));
  *size = sizeof address;
}

}  // namespace

FakeSocketPtr FakeNetwork::find(int fd) const {
  const auto found = sockets_.find(fd);
  if (found == sockets_.end()) fail("descriptor {} is used, but is not open", fd);
  return found->second;
}

int FakeNetwork::add(FakeSocketPtr socket) {
  int fd = kFirstDescriptor;
  for (const auto& each : sockets_) {
    if (each.first != fd) break;
    ++fd;
  }
  sockets_[fd] = std::move(socket);
  return fd;
}

int FakeNetwork::socket(int domain, int type) {
  if (domain != AF_INET) return -EAFNOSUPPORT;
  return add(std::make_shared<FakeSocket>((type & ~SOCK_CLOEXEC) == SOCK_STREAM));
}

int FakeNetwork::close(int fd) {
  const FakeSocketPtr socket = find(fd);
  sockets_.erase(fd);
  socket->closed = true;
  hang_up(*socket);
  for (const FakeSocketPtr& each : socket->waiting) hang_up(*each);
  changed();
  return 0;
}

bool FakeNetwork::is_taken(const FakeSocket& by, uint16_t port) const {
  return std::any_of(sockets_.begin(), sockets_.end(), [&](const auto& entry) {
    const FakeSocket& each = *entry.second;
    if (&each == &by || each.stream != by.stream || !each.is_at(port)) return false;
    return each.listening || !each.reuses_address || !by.reuses_address;
  });
}

uint16_t FakeNetwork::draw_port(const FakeSocket& socket) {
  do {
    if (++next_port_ < 32768) next_port_ = 32768;
  } while (is_taken(socket, next_port_));
  return next_port_;
}

void FakeNetwork::give_port(FakeSocket& socket) {
  if (socket.local.port != 0) return;
  socket.local = {kLoopback, draw_port(socket)};
  socket.bound_since = ++binds_;
}

int FakeNetwork::bind(int fd, const sockaddr* address) {
  FakeSocket& socket = *find(fd);
  const uint16_t port = read_address(address).port;
  if (socket.local.port != 0) return -EINVAL;
  if (port == 0) {
    give_port(socket);
    return 0;
  }
  if (is_taken(socket, port)) return -EADDRINUSE;
  const bool is_shared = !socket.stream && receiver(kStranger, port) != nullptr;
  socket.local = {kLoopback, port};
  socket.bound_since = ++binds_;
  if (is_shared) draw_stray(port);
  return 0;
}

int FakeNetwork::connect(int fd, const sockaddr* address) {
  const FakeSocketPtr socket = find(fd);
  if (socket->stream && socket->connected) return -EISCONN;
  socket->peer = read_address(address);
  give_port(*socket);
  if (socket->stream) return connect_stream(socket);
  socket->connected = true;
  socket->bound_since = ++binds_;
  return 0;
}

int FakeNetwork::listen(int fd) {
  FakeSocket& socket = *find(fd);
  give_port(socket);
  if (is_taken(socket, socket.local.port)) return -EADDRINUSE;
  socket.listening = true;
  return 0;
}

int FakeNetwork::accept(int fd, sockaddr* address, socklen_t* size) {
  const FakeSocketPtr socket = find(fd);
  if (!socket->listening) return -EINVAL;
  while (socket->waiting.empty()) {
    if (!wait(*socket, 0)) return -EAGAIN;
  }
  const FakeSocketPtr accepted = socket->waiting.front();
  socket->waiting.pop_front();
  spin_watch_.moved();
  write_address(accepted->peer, address, size);
  return add(accepted);
}

int FakeNetwork::local_name(int fd, sockaddr* address, socklen_t* size) {
  write_address(find(fd)->local, address, size);
  return 0;
}

int FakeNetwork::status_flags(int fd) { return O_RDWR | (find(fd)->non_blocking ? O_NONBLOCK : 0); }

int FakeNetwork::set_status_flags(int fd, int flags) {
  find(fd)->non_blocking = (flags & O_NONBLOCK) != 0;
  return 0;
}

int FakeNetwork::take_error(int fd) { return std::exchange(find(fd)->error, 0); }

int FakeNetwork::set_reuse(int fd, bool reuse) {
  find(fd)->reuses_address = reuse;
  return 0;
}

int FakeNetwork::readable_bytes(int fd) {
  const FakeSocket& socket = *find(fd);
  if (socket.stream) return static_cast<int>(socket.bytes.size());
  return socket.datagrams.empty() ? 0 : static_cast<int>(socket.datagrams.front().bytes.size());
}

// False when the call is to fail instead.
bool FakeNetwork::wait(const FakeSocket& socket, int flags) {
  if (socket.non_blocking || (flags & MSG_DONTWAIT) != 0) return false;
  scheduler_.block(this, kNever);
  return true;
}

long FakeNetwork::send(int fd, std::string_view bytes, int flags) {
  const FakeSocketPtr socket = find(fd);
  ++sends_[scheduler_.self()];
  return socket->stream ? send_stream(*socket, bytes, flags) : send_datagram(*socket, bytes);
}

long FakeNetwork::receive(int fd, char* into, size_t room, int flags, sockaddr* from,
                          socklen_t* from_size) {
  const FakeSocketPtr socket = find(fd);
  if (socket->stream) return receive_stream(*socket, into, room, flags);
  Address source;
  const long result = receive_datagram(*socket, into, room, flags, source);
  if (result < 0) return result;
  write_address(source, from, from_size);
  // Only a listener's own socket is not connected. With the sender's address the library leaves out
  // what others have sent.
  const bool is_left_out = from != nullptr && !socket->is_connected_to(source.port);
  if (socket->connected && !is_left_out && (flags & MSG_PEEK) == 0) {
    announce(*socket, source, std::string_view(into, static_cast<size_t>(result)));
  }
  return result;
}

}  // namespace tarn_sim
