#ifndef TARN_TOOLS_UDP_SOCKET_H_
#define TARN_TOOLS_UDP_SOCKET_H_

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tools/peer_address.h"

namespace tarn_tool {

// A non-blocking UDP socket, shared by everybody who sends through it. Sending is safe on any
// thread; receiving belongs to one thread.
class UdpSocket {
 public:
  // The largest datagram that UDP carries.
  static constexpr std::size_t kMaxDatagram = 65535;

  // Bound to `address`. On failure null, and `error` says why.
  static std::shared_ptr<UdpSocket> bind(const PeerAddress& address, std::string& error);
  // Connected to `address`: sends to it and hears nobody else.
  static std::shared_ptr<UdpSocket> connect(const PeerAddress& address, std::string& error);

  ~UdpSocket();
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;

  // Sends one datagram to the connected peer, or to `to`. A datagram that the system does not take
  // is lost, like any other; last_error() remembers why.
  void send(std::string_view datagram);
  void send_to(std::string_view datagram, const PeerAddress& to);

  // One datagram into `buffer` of `size` bytes, its sender into `from`; nothing when none waits.
  std::optional<std::size_t> receive(char* buffer, std::size_t size, PeerAddress& from);

  int fd() const { return fd_; }
  PeerAddress local_address() const;

  // Why the system refused a datagram last, as an errno value; 0 when it never did.
  int last_error() const { return last_error_; }

 private:
  explicit UdpSocket(int fd) : fd_(fd) {}
  static std::shared_ptr<UdpSocket> open(int family, std::string& error);
  bool bind_to(const PeerAddress& address) const;
  void enlarge_buffers() const;

  const int fd_;
  std::atomic<int> last_error_{0};
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_UDP_SOCKET_H_
