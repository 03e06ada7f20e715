#include "tools/udp_socket.h"

#include <fmt/format.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tarn_tool {
namespace {

// Room for the bursts in which a window of segments goes out and is re-sent.
constexpr int kBufferBytes = 4 << 20;

void set_buffer(int fd, int forced_option, int option) {
  const int bytes = kBufferBytes;
  // The forced form passes the system's limit where the process may; the plain form is cut to it.
  if (setsockopt(fd, SOL_SOCKET, forced_option, &bytes, sizeof(bytes)) != 0) {
    setsockopt(fd, SOL_SOCKET, option, &bytes, sizeof(bytes));
  }
}

}  // namespace

std::shared_ptr<UdpSocket> UdpSocket::open(int family, std::string& error) {
  const int fd = ::socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = fmt::format("cannot open a UDP socket: {}", std::strerror(errno));
    return nullptr;
  }
  std::shared_ptr<UdpSocket> socket(new UdpSocket(fd));
  socket->enlarge_buffers();
  return socket;
}

void UdpSocket::enlarge_buffers() const {
  set_buffer(fd_, SO_RCVBUFFORCE, SO_RCVBUF);
  set_buffer(fd_, SO_SNDBUFFORCE, SO_SNDBUF);
}

bool UdpSocket::bind_to(const PeerAddress& address) const {
  if (address.is_any_v6()) {
    const int off = 0;
    setsockopt(fd_, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off));
  }
  return ::bind(fd_, address.data(), address.size()) == 0;
}

std::shared_ptr<UdpSocket> UdpSocket::bind(const PeerAddress& address, std::string& error) {
  auto socket = open(address.family(), error);
  if (!socket && address.is_any_v6()) return bind(address.any_v4(), error);
  if (!socket || socket->bind_to(address)) return socket;
  const int reason = errno;
  // A system can know IPv6 and still have none of its addresses.
  if (reason == EADDRNOTAVAIL && address.is_any_v6()) return bind(address.any_v4(), error);
  error = fmt::format("cannot listen on {}: {}", address.text(), std::strerror(reason));
  return nullptr;
}

std::shared_ptr<UdpSocket> UdpSocket::connect(const PeerAddress& address, std::string& error) {
  auto socket = open(address.family(), error);
  if (!socket) return nullptr;
  if (::connect(socket->fd_, address.data(), address.size()) != 0) {
    error = fmt::format("cannot send to {}: {}", address.text(), std::strerror(errno));
    return nullptr;
  }
  return socket;
}

UdpSocket::~UdpSocket() { ::close(fd_); }

void UdpSocket::send(std::string_view datagram) {
  if (::send(fd_, datagram.data(), datagram.size(), 0) < 0) last_error_ = errno;
}

void UdpSocket::send_to(std::string_view datagram, const PeerAddress& to) {
  if (::sendto(fd_, datagram.data(), datagram.size(), 0, to.data(), to.size()) < 0) {
    last_error_ = errno;
  }
}

std::optional<std::size_t> UdpSocket::receive(char* buffer, std::size_t size, PeerAddress& from) {
  while (true) {
    sockaddr_storage storage = {};
    socklen_t length = sizeof(storage);
    const ssize_t got =
        ::recvfrom(fd_, buffer, size, 0, reinterpret_cast<sockaddr*>(&storage), &length);
    if (got >= 0) {
      from = PeerAddress(storage, length);
      return static_cast<std::size_t>(got);
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) return std::nullopt;
    if (errno == EINTR) continue;
    // An earlier datagram was refused on its way. Reading the error clears it, so go on reading.
    last_error_ = errno;
    if (errno != ECONNREFUSED && errno != EHOSTUNREACH && errno != ENETUNREACH) return std::nullopt;
  }
}

PeerAddress UdpSocket::local_address() const {
  sockaddr_storage storage = {};
  socklen_t length = sizeof(storage);
  if (getsockname(fd_, reinterpret_cast<sockaddr*>(&storage), &length) != 0) return {};
  return PeerAddress(storage, length);
}

}  // namespace tarn_tool
