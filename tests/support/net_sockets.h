// Sockets of the system's own making on the loopback interface: the other ends in socket tests.
#ifndef TARN_TESTS_SUPPORT_NET_SOCKETS_H_
#define TARN_TESTS_SUPPORT_NET_SOCKETS_H_

#include <cstdint>
#include <string>

namespace tarn_test {

// Closes its descriptor in the end.
class OwnedFd {
 public:
  OwnedFd() = default;
  explicit OwnedFd(int fd) : fd_(fd) {}
  OwnedFd(OwnedFd&& other) noexcept : fd_(other.release()) {}
  OwnedFd& operator=(OwnedFd&& other) noexcept;
  ~OwnedFd() { reset(); }

  int get() const { return fd_; }
  int release();
  void reset();

 private:
  int fd_ = -1;
};

// A socket of the library's that is closed in the end; `Socket` is TarnSocket.
template <typename Socket, typename Socket::Protocol protocol>
struct Closing {
  Closing() : socket(Socket::create_socket(Socket::IPV4, protocol), protocol) {}
  ~Closing() { socket.close(); }
  Closing(const Closing&) = delete;
  Closing& operator=(const Closing&) = delete;
  Socket* operator->() { return &socket; }
  Socket socket;
};

// Two ends of one connection.
struct Ends {
  OwnedFd near;
  OwnedFd far;
};

bool is_open(int fd);
bool is_non_blocking(int fd);
bool is_closed_by_exec(int fd);
// The local port of a socket of either family.
uint16_t port_of(int fd);
// The value of an integer option at SOL_SOCKET.
int socket_option(int fd, int name);

// On any free port; on this one, or -1.
OwnedFd udp_on_loopback(uint16_t port = 0);
OwnedFd tcp_listener_on_loopback();
Ends udp_ends();
Ends tcp_ends();
// A connection to that port of 127.0.0.1, or -1.
OwnedFd connect_tcp(uint16_t port);

// False when there is nothing to read after `ms` milliseconds.
bool wait_readable(int fd, int ms = 5000);
void send_text(int fd, const std::string& text);
void send_text_to(int fd, uint16_t port, const std::string& text);
// One recv, waited for; "<nothing>" when nothing comes.
std::string receive_text(int fd);
// Lets the far end's close be seen as a reset.
void reset_connection(OwnedFd& fd);

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_NET_SOCKETS_H_
