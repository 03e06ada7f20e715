#include "tarn_io/tarn_addr.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include "oxutils/assert.h"

namespace {

constexpr size_t kIpv4Size = 4;
constexpr size_t kIpv6Size = 16;
// Deliberately small: only texts of up to 15 characters convert.
constexpr size_t kIpv6TextSize = 16;

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  const int lower = tolower(static_cast<unsigned char>(c));
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// Reads the IPv6 text form group by group.
class Ipv6Parser {
 public:
  bool parse(const char* src);
  void copy_to(unsigned char* dst) const { memcpy(dst, bytes_, sizeof bytes_); }

 private:
  bool add_digit(int digit);
  bool end_group(const char* rest);
  bool store_group();
  bool parse_tail(const char* text);
  bool finish();

  unsigned char bytes_[kIpv6Size] = {};
  size_t filled_ = 0;
  bool has_gap_ = false;  // "::" was seen
  size_t gap_ = 0;        // bytes before it
  unsigned int group_ = 0;
  bool has_group_ = false;
};

bool Ipv6Parser::add_digit(int digit) {
  has_group_ = true;
  group_ = group_ << 4 | static_cast<unsigned int>(digit);
  return group_ <= 0xFFFF;
}

bool Ipv6Parser::store_group() {
  if (filled_ + 2 > kIpv6Size) return false;
  bytes_[filled_++] = static_cast<unsigned char>(group_ >> 8);
  bytes_[filled_++] = static_cast<unsigned char>(group_);
  group_ = 0;
  has_group_ = false;
  return true;
}

// A ':' was read; `rest` follows it.
bool Ipv6Parser::end_group(const char* rest) {
  if (has_group_) return *rest != '\0' && store_group();
  if (has_gap_) return false;
  has_gap_ = true;
  gap_ = filled_;
  return true;
}

bool Ipv6Parser::parse_tail(const char* text) {
  if (filled_ + kIpv4Size > kIpv6Size) return false;
  if (TarnAddr::inet_pton4(text, bytes_ + filled_) != 1) return false;
  filled_ += kIpv4Size;
  has_group_ = false;
  return true;
}

bool Ipv6Parser::finish() {
  if (has_group_ && !store_group()) return false;
  if (!has_gap_) return filled_ == kIpv6Size;
  const size_t after = filled_ - gap_;
  memmove(bytes_ + kIpv6Size - after, bytes_ + gap_, after);
  memset(bytes_ + gap_, 0, kIpv6Size - filled_);
  return true;
}

bool Ipv6Parser::parse(const char* src) {
  if (*src == '\0') return false;
  if (*src == ':' && *++src != ':') return false;
  const char* group_start = src;
  for (; *src != '\0'; ++src) {
    const int digit = hex_value(*src);
    if (digit >= 0) {
      if (!add_digit(digit)) return false;
    } else if (*src == ':') {
      if (!end_group(src + 1)) return false;
      group_start = src + 1;
    } else {
      return *src == '.' && parse_tail(group_start) && finish();
    }
  }
  return finish();
}

}  // namespace

TarnAddr::TarnAddr(const char* ip, uint16_t port) : ip_(ip != nullptr ? ip : ""), port_(port) {}

TarnAddr::TarnAddr(sockaddr* sa) {
  if (sa->sa_family == AF_INET6) {
    sockaddr_in6 address;
    memcpy(&address, sa, sizeof address);
    char text[kIpv6TextSize] = {};
    ip_ = inet_ntop(AF_INET6, &address.sin6_addr, text, sizeof text) != nullptr ? text : "";
    port_ = ntohs(address.sin6_port);
  } else if (sa->sa_family == AF_INET) {
    sockaddr_in address;
    memcpy(&address, sa, sizeof address);
    char text[INET_ADDRSTRLEN] = {};
    ip_ = inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    port_ = ntohs(address.sin_port);
  } else {
    OX_ASSERT("tarn_io/tarn_addr", __LINE__, false);
  }
}

bool TarnAddr::is_ipv4(const char* text) {
  unsigned char address[kIpv4Size];
  return inet_pton4(text, address) == 1;
}

bool TarnAddr::is_ipv6(const char* text) {
  unsigned char address[kIpv6Size];
  return inet_pton6(text, address) == 1;
}

int TarnAddr::inet_pton4(const char* src, unsigned char* dst) {
  if (src == nullptr) return 0;
  unsigned char octets[kIpv4Size] = {};
  size_t count = 0;
  unsigned int value = 0;
  bool has_digit = false;
  for (; *src != '\0'; ++src) {
    if (*src >= '0' && *src <= '9') {
      if (!has_digit && count == kIpv4Size) return 0;
      if (!has_digit) ++count;
      has_digit = true;
      value = value * 10 + static_cast<unsigned int>(*src - '0');
      if (value > 255) return 0;
      octets[count - 1] = static_cast<unsigned char>(value);
    } else if (*src == '.' && has_digit && count < kIpv4Size) {
      value = 0;
      has_digit = false;
    } else {
      return 0;
    }
  }
  if (count != kIpv4Size) return 0;
  memcpy(dst, octets, sizeof octets);
  return 1;
}

int TarnAddr::inet_pton6(const char* src, unsigned char* dst) {
  Ipv6Parser parser;
  if (src == nullptr || !parser.parse(src)) return 0;
  parser.copy_to(dst);
  return 1;
}

bool TarnAddr::get_sock_addr_v4(sockaddr_in& out) const {
  if (is_ipv6(ip_.c_str())) return false;
  out = {};
  out.sin_family = AF_INET;
  out.sin_addr.s_addr = inet_addr(ip_.c_str());
  out.sin_port = htons(port_);
  return true;
}

bool TarnAddr::get_sock_addr_v6(sockaddr_in6& out) const {
  std::string text = ip_;
  if (!is_ipv6(ip_.c_str())) {
    const uint32_t v4 = ntohl(inet_addr(ip_.c_str()));
    char mapped[32];
    snprintf(mapped, sizeof mapped, "64:ff9b::%x:%x", v4 >> 16, v4 & 0xFFFF);
    text = mapped;
  }
  out = {};
  out.sin6_family = AF_INET6;
  inet_pton(AF_INET6, text.c_str(), &out.sin6_addr);
  out.sin6_port = htons(port_);
  return true;
}
