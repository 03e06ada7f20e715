#include "tools/peer_address.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace tarn_tool {
namespace {

struct HostPort {
  std::string host;
  std::string port;
};

bool is_port(const std::string& text) {
  if (text.empty() || text.size() > 5) return false;
  const bool digits =
      std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
  return digits && std::stoul(text) <= 65535;
}

std::optional<HostPort> split(const std::string& text, std::string& error) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0 || !is_port(text.substr(colon + 1))) {
    error = fmt::format("\"{}\" is not HOST:PORT", text);
    return std::nullopt;
  }
  HostPort parts{text.substr(0, colon), text.substr(colon + 1)};
  if (parts.host.size() > 2 && parts.host.front() == '[' && parts.host.back() == ']') {
    parts.host = parts.host.substr(1, parts.host.size() - 2);
  } else if (parts.host.find(':') != std::string::npos) {
    error = fmt::format("\"{}\": write an IPv6 address as [ADDRESS]:PORT", text);
    return std::nullopt;
  }
  return parts;
}

std::optional<PeerAddress> look_up(const HostPort& parts, std::string& error,
                                   int family = AF_UNSPEC) {
  addrinfo hints = {};
  hints.ai_family = family;
  hints.ai_socktype = SOCK_DGRAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int result = getaddrinfo(parts.host.c_str(), parts.port.c_str(), &hints, &found);
  if (result != 0) {
    error = fmt::format("{}: {}", parts.host, gai_strerror(result));
    return std::nullopt;
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, freeaddrinfo);
  sockaddr_storage storage = {};
  std::memcpy(&storage, found->ai_addr, std::min<std::size_t>(found->ai_addrlen, sizeof(storage)));
  return PeerAddress(storage, found->ai_addrlen);
}

template <typename Family>
Family view_as(const sockaddr_storage& storage) {
  Family result = {};
  std::memcpy(&result, &storage, sizeof(result));
  return result;
}

}  // namespace

PeerAddress::PeerAddress(const sockaddr_storage& storage, socklen_t length)
    : storage_(storage), length_(std::min<socklen_t>(length, sizeof(storage_))) {}

std::optional<PeerAddress> PeerAddress::resolve(const std::string& text, std::string& error,
                                                bool prefer_v4) {
  const auto parts = split(text, error);
  if (!parts) return std::nullopt;
  if (std::stoul(parts->port) == 0) {
    error = fmt::format("\"{}\": nothing can be sent to port 0", text);
    return std::nullopt;
  }
  const auto v4 = prefer_v4 ? look_up(*parts, error, AF_INET) : std::nullopt;
  return v4 ? v4 : look_up(*parts, error);
}

std::optional<PeerAddress> PeerAddress::resolve_listener(const std::string& text,
                                                         std::string& error) {
  if (text.find(':') != std::string::npos) {
    const auto parts = split(text, error);
    return parts ? look_up(*parts, error) : std::nullopt;
  }
  if (!is_port(text)) {
    error = fmt::format("\"{}\" is not a port from 0 to 65535", text);
    return std::nullopt;
  }
  sockaddr_in6 any = {};
  any.sin6_family = AF_INET6;
  any.sin6_addr = in6addr_any;
  any.sin6_port = htons(static_cast<std::uint16_t>(std::stoul(text)));
  sockaddr_storage storage = {};
  std::memcpy(&storage, &any, sizeof(any));
  return PeerAddress(storage, sizeof(any));
}

const sockaddr* PeerAddress::data() const { return reinterpret_cast<const sockaddr*>(&storage_); }

unsigned PeerAddress::port() const {
  if (family() == AF_INET) return ntohs(view_as<sockaddr_in>(storage_).sin_port);
  if (family() == AF_INET6) return ntohs(view_as<sockaddr_in6>(storage_).sin6_port);
  return 0;
}

bool PeerAddress::is_any_v6() const {
  if (family() != AF_INET6) return false;
  const auto address = view_as<sockaddr_in6>(storage_);
  return IN6_IS_ADDR_UNSPECIFIED(&address.sin6_addr);
}

PeerAddress PeerAddress::any_v4() const {
  sockaddr_in any = {};
  any.sin_family = AF_INET;
  any.sin_port = htons(static_cast<std::uint16_t>(port()));
  sockaddr_storage storage = {};
  std::memcpy(&storage, &any, sizeof(any));
  return PeerAddress(storage, sizeof(any));
}

std::string PeerAddress::host() const {
  char host[INET6_ADDRSTRLEN] = "";
  if (family() == AF_INET) {
    const auto address = view_as<sockaddr_in>(storage_);
    inet_ntop(AF_INET, &address.sin_addr, host, sizeof(host));
  } else if (family() == AF_INET6) {
    const auto address = view_as<sockaddr_in6>(storage_);
    const bool is_v4 = IN6_IS_ADDR_V4MAPPED(&address.sin6_addr);
    inet_ntop(is_v4 ? AF_INET : AF_INET6, address.sin6_addr.s6_addr + (is_v4 ? 12 : 0), host,
              sizeof(host));
  }
  return host;
}

std::string PeerAddress::text() const {
  const std::string address = host();
  if (address.empty()) return "no address";
  const bool is_v6 = address.find(':') != std::string::npos;
  return fmt::format(is_v6 ? "[{}]:{}" : "{}:{}", address, port());
}

bool PeerAddress::operator<(const PeerAddress& other) const { return key() < other.key(); }

std::string PeerAddress::key() const {
  std::string result = fmt::format("{}:{}:", family(), port());
  if (family() == AF_INET) {
    const auto address = view_as<sockaddr_in>(storage_);
    result.append(reinterpret_cast<const char*>(&address.sin_addr), sizeof(address.sin_addr));
  } else if (family() == AF_INET6) {
    const auto address = view_as<sockaddr_in6>(storage_);
    result.append(reinterpret_cast<const char*>(&address.sin6_addr), sizeof(address.sin6_addr));
    result.append(std::to_string(address.sin6_scope_id));
  }
  return result;
}

}  // namespace tarn_tool
