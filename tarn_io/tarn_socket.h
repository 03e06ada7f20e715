// TarnSocket: one socket descriptor with its protocol, address family and TCP receive buffer.
#ifndef TARN_TARN_IO_TARN_SOCKET_H_
#define TARN_TARN_IO_TARN_SOCKET_H_

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#include "tarn_io/tarn_addr.h"
#include "tarn_io/tcp_buffer.h"

// Copied by value, descriptor and all; no copy closes it on its own, only close() does. The family
// of a new socket follows the host: IPv6 only where IPv4 is not reachable and IPv6 is. Not
// synchronised: the owner decides which thread reads and which sends.
//
// A datagram socket's pending error, such as a refusal by the peer's host, belongs to the next send
// or receive. Whoever polls the socket has it kept here, where it keeps nobody from reading.
class TarnSocket {
 public:
  // With a type of their own, so that a value that is none of these is a bad value and no more.
  enum Protocol : int { TCP = 0, UDP = 1 };
  enum AddrFamily : int { IPV4 = 0, IPV6 = 1 };

  // What the library reads of a datagram; the rest of a longer one is cut off.
  static constexpr int kMaxDatagram = 1500;

  // Opens a socket of the family that the host reaches; asks the kernel for a route each time, so
  // that new sockets follow a change of network.
  explicit TarnSocket(Protocol p);
  // Wrap an existing descriptor, taken for IPv4; the first form for UDP.
  explicit TarnSocket(int fd);
  TarnSocket(int fd, Protocol p);

  AddrFamily af() const { return af_; }
  Protocol protocol() const { return protocol_; }
  int fd() const { return fd_; }

  // The new descriptor, -1 on failure, 0 for a family or protocol that there is not. An exec closes
  // it, like every one that is opened here.
  static int create_socket(AddrFamily af, Protocol p);
  static bool ip_v6_only();
  static bool has_ip_v4();
  static bool has_ip_v6();
  // Whether a UDP socket of `domain` finds a route to the address. Sends nothing.
  static bool ip_stack_check_connect(int domain, sockaddr* addr, size_t len);
  static int last_error();
  // Whether a receive that failed with this has taken a pending error out of the socket.
  static bool was_pending(int error);

  // False when the address does not fit the family, or the system call fails; a TCP connect that
  // goes on in the background fails too.
  bool connect(const char* ip, short port);
  bool connect(TarnAddr& addr);
  // From now on read() leaves out what others than `peer` have sent. A socket that was bound before
  // it was connected may be given others' datagrams for a moment after it, too: those that were on
  // their way to it.
  void read_only_from(const TarnAddr& peer);
  // Binds the family's wildcard address.
  bool bind(uint16_t port);
  bool listen();
  // The next connection; on failure a socket of the negative result.
  TarnSocket accept();
  // Makes the descriptor non-blocking.
  bool async();
  // Allows the address to be used again. True when that FAILED; nobody looks at it.
  bool reuse();
  // Closes descriptors from 1 up; a later call does nothing more.
  void close();

  // A socket that has the descriptor, which this one then has not.
  TarnSocket release();

  // UDP: size of the next datagram; TCP: bytes in the buffer.
  int readable_len();
  // One datagram. A pending error comes before it: -1. Requires: UDP.
  int read(char* buf, int len);
  // After a read that has failed: reads on if that was with a pending error, which is then kept for
  // the next send; so is each that comes in between, up to a limit.
  int read_on(char* buf, int len);
  // Takes the pending error over from the system, for the next send or receive. False when an error
  // or hang-up is there to stay.
  bool keep_error();
  // POLLERR, POLLHUP and POLLNVAL, as they are now.
  short condition() const;
  // The first byte of the buffer, which stays where it is until the next call of these two,
  // whatever is read meanwhile; drop bytes from it. Require: TCP.
  char* peek();
  void consume(int len);
  // Moves what the kernel has into the buffer. Requires: TCP.
  int read_all();
  // One recvfrom. Requires: a datagram is there.
  int readfrom(char* buf, int len, TarnAddr& from);
  // The same without waiting. False, and `from` untouched, when that fails.
  bool try_readfrom(char* buf, int len, TarnAddr& from);
  // Never raises a signal. A failure is logged.
  int send(const char* buf, size_t len);
  // The two halves of send(), for callers that hold a lock over the first.
  int try_send(const char* buf, size_t len);
  static void log_send_failure(int fd, int error);

 private:
  // Room for the address of either family.
  union Address {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
  };

  // False when `addr` does not fit the family.
  bool fill(const TarnAddr& addr, Address& out) const;
  // One datagram and its source, which a failure leaves without a family.
  int receive_from(char* buf, int len, int flags, Address& source) const;
  int receive(char* buf, int len) const;
  int receive_from_peer(char* buf, int len) const;
  // Apart from the busy paths, which then need no room for it.
  __attribute__((noinline)) int fail_with_kept_error();
  int take_error() const;
  bool is_peer(const Address& source) const;

  int fd_;
  AddrFamily af_ = IPV4;
  Protocol protocol_;
  bool has_peer_ = false;
  Address peer_ = {};   // that read() goes by, if there is one
  int kept_error_ = 0;  // errno
  TcpBuffer buffer_;
};

#endif  // TARN_TARN_IO_TARN_SOCKET_H_
