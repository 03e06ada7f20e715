#ifndef TARN_TOOLS_PEER_ADDRESS_H_
#define TARN_TOOLS_PEER_ADDRESS_H_

#include <sys/socket.h>

#include <optional>
#include <string>

namespace tarn_tool {

// One UDP address, IPv4 or IPv6. A value type.
class PeerAddress {
 public:
  // No address: family AF_UNSPEC.
  PeerAddress() = default;
  // Takes what the system reported, at most sizeof(sockaddr_storage) bytes.
  PeerAddress(const sockaddr_storage& storage, socklen_t length);

  // "HOST:PORT" or "[HOST]:PORT", HOST a name or a number. On failure nothing, and `error` says
  // why.
  // Of several addresses the first, an IPv4 one with `prefer_v4`.
  static std::optional<PeerAddress> resolve(const std::string& text, std::string& error,
                                            bool prefer_v4 = false);

  // Where to listen: "PORT" (all interfaces, both families where the system has both),
  // "HOST:PORT" or "[HOST]:PORT". Port 0 lets the system choose.
  static std::optional<PeerAddress> resolve_listener(const std::string& text, std::string& error);

  const sockaddr* data() const;
  socklen_t size() const { return length_; }
  int family() const { return storage_.ss_family; }
  unsigned port() const;
  // The address alone, numeric, as text.
  std::string host() const;
  // True for the IPv6 wildcard, which stands for every address of both families.
  bool is_any_v6() const;
  // The wildcard of IPv4 with the same port, for systems without IPv6.
  PeerAddress any_v4() const;

  // "127.0.0.1:9000", "[::1]:9000"; an IPv4 peer seen through an IPv6 socket reads as IPv4.
  std::string text() const;

  // Orders by family, port, address and scope, so that it can key a map.
  bool operator<(const PeerAddress& other) const;
  bool operator==(const PeerAddress& other) const { return !(*this < other) && !(other < *this); }

 private:
  // What tells one address from another, without padding and flow labels.
  std::string key() const;

  sockaddr_storage storage_ = {};
  socklen_t length_ = 0;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_PEER_ADDRESS_H_
