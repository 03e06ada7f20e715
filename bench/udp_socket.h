// UdpSocket: one UDP socket of loopback.
#ifndef TARN_BENCH_UDP_SOCKET_H_
#define TARN_BENCH_UDP_SOCKET_H_

#include <netinet/in.h>
#include <stddef.h>

namespace bench {

constexpr size_t kMaxDatagram = 1500;  // bytes

// Non-blocking and bound to a free port. Closed at the end unless it was released.
class UdpSocket {
 public:
  UdpSocket();
  ~UdpSocket();
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;

  int fd() const { return fd_; }
  const sockaddr_in& address() const { return address_; }

  void connect(const UdpSocket& peer);
  // The descriptor, the caller's from now on.
  int release();

 private:
  int fd_;
  sockaddr_in address_ = {};
};

}  // namespace bench

#endif  // TARN_BENCH_UDP_SOCKET_H_
