#include "tests/support/net_sockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace tarn_test {
namespace {

constexpr size_t kMaxText = 65536;

// An address that the socket calls take, of either family.
union Address {
  sockaddr any;
  sockaddr_in v4;
  sockaddr_in6 v6;
};

Address loopback(uint16_t port) {
  Address address = {};
  address.v4.sin_family = AF_INET;
  address.v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.v4.sin_port = htons(port);
  return address;
}

OwnedFd bound(int type, uint16_t port = 0) {
  OwnedFd fd(socket(AF_INET, type, 0));
  const Address address = loopback(port);
  if (bind(fd.get(), &address.any, sizeof address.v4) != 0) fd.reset();
  return fd;
}

bool connect_to(int fd, uint16_t port) {
  const Address to = loopback(port);
  return connect(fd, &to.any, sizeof to.v4) == 0;
}

}  // namespace

OwnedFd& OwnedFd::operator=(OwnedFd&& other) noexcept {
  if (this != &other) {
    reset();
    fd_ = other.release();
  }
  return *this;
}

int OwnedFd::release() { return std::exchange(fd_, -1); }

void OwnedFd::reset() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

bool is_closed_by_exec(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

bool is_non_blocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }

uint16_t port_of(int fd) {
  Address address = {};
  socklen_t size = sizeof address;
  getsockname(fd, &address.any, &size);
  return ntohs(address.any.sa_family == AF_INET6 ? address.v6.sin6_port : address.v4.sin_port);
}

int socket_option(int fd, int name) {
  int value = -1;
  socklen_t size = sizeof value;
  getsockopt(fd, SOL_SOCKET, name, &value, &size);
  return value;
}

OwnedFd udp_on_loopback(uint16_t port) { return bound(SOCK_DGRAM, port); }

OwnedFd tcp_listener_on_loopback() {
  OwnedFd fd = bound(SOCK_STREAM);
  listen(fd.get(), 16);
  return fd;
}

Ends udp_ends() {
  Ends ends{udp_on_loopback(), udp_on_loopback()};
  connect_to(ends.near.get(), port_of(ends.far.get()));
  connect_to(ends.far.get(), port_of(ends.near.get()));
  return ends;
}

Ends tcp_ends() {
  const OwnedFd listener = tcp_listener_on_loopback();
  Ends ends;
  ends.far = connect_tcp(port_of(listener.get()));
  ends.near = OwnedFd(accept(listener.get(), nullptr, nullptr));
  return ends;
}

OwnedFd connect_tcp(uint16_t port) {
  OwnedFd fd(socket(AF_INET, SOCK_STREAM, 0));
  if (!connect_to(fd.get(), port)) fd.reset();
  return fd;
}

bool wait_readable(int fd, int ms) {
  pollfd wanted = {fd, POLLIN, 0};
  return poll(&wanted, 1, ms) == 1 && (wanted.revents & POLLIN) != 0;
}

void send_text(int fd, const std::string& text) {
  send(fd, text.data(), text.size(), MSG_NOSIGNAL);
}

void send_text_to(int fd, uint16_t port, const std::string& text) {
  const Address to = loopback(port);
  sendto(fd, text.data(), text.size(), MSG_NOSIGNAL, &to.any, sizeof to.v4);
}

std::string receive_text(int fd) {
  if (!wait_readable(fd)) return "<nothing>";
  std::string text(kMaxText, '\0');
  const ssize_t count = recv(fd, &text[0], text.size(), 0);
  text.resize(count > 0 ? static_cast<size_t>(count) : 0);
  return text;
}

void reset_connection(OwnedFd& fd) {
  const linger at_once = {1, 0};
  setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  fd.reset();
}

}  // namespace tarn_test
