// Any text as an address: the strict parsers against a second reading of the same rules and against
// the system's, and the ways to and from system addresses.
#include <arpa/inet.h>
#include <string.h>

#include <string>

#include "tarn_io/tarn_addr.h"
#include "tests/fuzz/support/fuzz_check.h"
#include "tests/fuzz/support/fuzz_input.h"
#include "tests/fuzz/support/plain_addr.h"

namespace {

using tarn_fuzz::FuzzInput;

constexpr char kUntouched = '\x5A';

std::string parse(int (*parser)(const char*, unsigned char*), const std::string& text,
                  size_t size) {
  std::string out(size, kUntouched);
  const int result = parser(text.c_str(), reinterpret_cast<unsigned char*>(out.data()));
  FUZZ_CHECK(result == 0 || result == 1);
  if (result == 1) return out;
  FUZZ_CHECK(out == std::string(size, kUntouched));
  return std::string();
}

std::string system_parse(int family, const std::string& text, size_t size) {
  std::string out(size, kUntouched);
  return inet_pton(family, text.c_str(), out.data()) == 1 ? out : std::string();
}

void check_parsers(const std::string& text) {
  const std::string v4 = parse(&TarnAddr::inet_pton4, text, 4);
  const std::string v6 = parse(&TarnAddr::inet_pton6, text, 16);
  FUZZ_CHECK(v4 == tarn_fuzz::plain_ipv4(text));
  FUZZ_CHECK(v6 == tarn_fuzz::plain_ipv6(text));
  FUZZ_CHECK(TarnAddr::is_ipv4(text.c_str()) == !v4.empty());
  FUZZ_CHECK(TarnAddr::is_ipv6(text.c_str()) == !v6.empty());
  FUZZ_CHECK(v4.empty() || v6.empty());
  // The system refuses leading zeros and long groups, but takes nothing that these refuse.
  const std::string system_v4 = system_parse(AF_INET, text, 4);
  const std::string system_v6 = system_parse(AF_INET6, text, 16);
  FUZZ_CHECK(system_v4.empty() || system_v4 == v4);
  FUZZ_CHECK(system_v6.empty() || system_v6 == v6);
}

void check_socket_addresses(const std::string& text, uint16_t port) {
  const TarnAddr addr(text.c_str(), port);
  FUZZ_CHECK(addr.get_ip() == text);
  FUZZ_CHECK(addr.get_port() == port);
  const in_addr_t v4 = inet_addr(text.c_str());

  sockaddr_in out4;
  FUZZ_CHECK(addr.get_sock_addr_v4(out4) == tarn_fuzz::plain_ipv6(text).empty());
  if (tarn_fuzz::plain_ipv6(text).empty()) {
    FUZZ_CHECK(out4.sin_family == AF_INET && ntohs(out4.sin_port) == port);
    FUZZ_CHECK(out4.sin_addr.s_addr == v4);
  }

  sockaddr_in6 out6;
  FUZZ_CHECK(addr.get_sock_addr_v6(out6));
  FUZZ_CHECK(out6.sin6_family == AF_INET6 && ntohs(out6.sin6_port) == port);
  FUZZ_CHECK(out6.sin6_flowinfo == 0 && out6.sin6_scope_id == 0);
  std::string expected("\x00\x64\xFF\x9B\x00\x00\x00\x00\x00\x00\x00\x00", 12);
  expected.append(reinterpret_cast<const char*>(&v4), 4);
  // What only the library's own parser takes for IPv6 is left to the system, which refuses it.
  if (!tarn_fuzz::plain_ipv6(text).empty()) expected = system_parse(AF_INET6, text, 16);
  if (expected.empty()) expected.assign(16, '\0');
  FUZZ_CHECK(memcmp(&out6.sin6_addr, expected.data(), 16) == 0);
}

void check_from_system(const std::string& raw) {
  sockaddr_in v4 = {};
  v4.sin_family = AF_INET;
  memcpy(&v4.sin_addr, raw.data(), 4);
  memcpy(&v4.sin_port, raw.data() + 4, 2);
  sockaddr_storage storage = {};
  memcpy(&storage, &v4, sizeof v4);
  const TarnAddr from4(reinterpret_cast<sockaddr*>(&storage));
  FUZZ_CHECK(from4.get_port() == ntohs(v4.sin_port));
  FUZZ_CHECK(parse(&TarnAddr::inet_pton4, from4.get_ip(), 4) == raw.substr(0, 4));

  sockaddr_in6 v6 = {};
  v6.sin6_family = AF_INET6;
  memcpy(&v6.sin6_addr, raw.data(), 16);
  v6.sin6_port = v4.sin_port;
  memcpy(&storage, &v6, sizeof v6);
  const TarnAddr from6(reinterpret_cast<sockaddr*>(&storage));
  FUZZ_CHECK(from6.get_port() == ntohs(v6.sin6_port));
  char text[INET6_ADDRSTRLEN];
  FUZZ_CHECK(inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof text) != nullptr);
  const bool is_kept = strlen(text) <= 15;
  FUZZ_CHECK(from6.get_ip() == (is_kept ? text : ""));
  FUZZ_CHECK(parse(&TarnAddr::inet_pton6, text, 16) == raw.substr(0, 16));
}

}  // namespace

// 16 raw bytes come last, so that a text file is a fine input.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  const std::string whole = input.rest();
  const std::string text = whole.substr(0, whole.find('\0'));
  check_parsers(text);
  check_socket_addresses(text, static_cast<uint16_t>(size * 257));
  std::string raw = whole.substr(whole.size() > 16 ? whole.size() - 16 : 0);
  raw.resize(16);
  check_from_system(raw);
  return 0;
}
