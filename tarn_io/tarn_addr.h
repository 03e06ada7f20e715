// TarnAddr: one endpoint, an address in text form and a port.
#ifndef TARN_TARN_IO_TARN_ADDR_H_
#define TARN_TARN_IO_TARN_ADDR_H_

#include <netinet/in.h>
#include <stdint.h>
#include <sys/socket.h>

#include <string>

// A plain value. Nothing is validated before a system address is asked for.
class TarnAddr {
 public:
  TarnAddr() = default;
  TarnAddr(const char* ip, uint16_t port);
  // Requires: an IPv4 or IPv6 address. An IPv6 text of more than 15 characters is not kept: the
  // ip is then empty.
  explicit TarnAddr(sockaddr* sa);

  std::string get_ip() const { return ip_; }
  uint16_t get_port() const { return port_; }

  static bool is_ipv4(const char* text);
  static bool is_ipv6(const char* text);

  // Strict parsers. 1 and 4 or 16 bytes in network order in `dst`, or 0 and `dst` untouched.
  static int inet_pton4(const char* src, unsigned char* dst);
  static int inet_pton6(const char* src, unsigned char* dst);

  // False for an IPv6 text; any other that is no address gives 255.255.255.255.
  bool get_sock_addr_v4(sockaddr_in& out) const;
  // An IPv4 text is mapped into 64:ff9b::/96, for hosts that reach IPv4 through NAT64. Always true.
  bool get_sock_addr_v6(sockaddr_in6& out) const;

 private:
  std::string ip_ = "0.0.0.0";
  uint16_t port_ = 0;  // host order
};

#endif  // TARN_TARN_IO_TARN_ADDR_H_
