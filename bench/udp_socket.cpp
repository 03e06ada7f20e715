#include "bench/udp_socket.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace bench {

UdpSocket::UdpSocket() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
  address_.sin_family = AF_INET;
  address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address_;
  bind(fd_, reinterpret_cast<sockaddr*>(&address_), size);
  getsockname(fd_, reinterpret_cast<sockaddr*>(&address_), &size);
}

UdpSocket::~UdpSocket() {
  if (fd_ >= 0) close(fd_);
}

void UdpSocket::connect(const UdpSocket& peer) {
  ::connect(fd_, reinterpret_cast<const sockaddr*>(&peer.address_), sizeof peer.address_);
}

int UdpSocket::release() { return std::exchange(fd_, -1); }

}  // namespace bench
