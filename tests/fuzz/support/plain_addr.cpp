#include "tests/fuzz/support/plain_addr.h"

#include <vector>

namespace tarn_fuzz {
namespace {

std::vector<std::string> split(const std::string& text, char at) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c == at) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

// The number that `digits` are in this base, without a length limit; -1 when it is none or is
// above `max`.
long number(const std::string& digits, int base, long max) {
  if (digits.empty()) return -1;
  const std::string all = "0123456789abcdef0123456789ABCDEF";
  long value = 0;
  for (const char c : digits) {
    const size_t at = all.find(c);
    const auto digit = static_cast<long>(at % 16);
    if (at == std::string::npos || digit >= base) return -1;
    value = value * base + digit;
    if (value > max) return -1;
  }
  return value;
}

// Appends the bytes of colon-separated groups, the last of which may be a dotted quad if
// `ends_text`.
bool append_groups(const std::string& text, bool ends_text, std::string& bytes) {
  if (text.empty()) return true;
  const std::vector<std::string> groups = split(text, ':');
  for (size_t i = 0; i < groups.size(); ++i) {
    const long value = number(groups[i], 16, 0xFFFF);
    if (value >= 0) {
      bytes += static_cast<char>(value / 256);
      bytes += static_cast<char>(value % 256);
      continue;
    }
    const std::string quad = plain_ipv4(groups[i]);
    if (quad.empty() || !ends_text || i + 1 != groups.size()) return false;
    bytes += quad;
  }
  return true;
}

}  // namespace

std::string plain_ipv4(const std::string& text) {
  const std::vector<std::string> octets = split(text, '.');
  if (octets.size() != 4) return std::string();
  std::string bytes;
  for (const std::string& octet : octets) {
    const long value = number(octet, 10, 255);
    if (value < 0) return std::string();
    bytes += static_cast<char>(value);
  }
  return bytes;
}

std::string plain_ipv6(const std::string& text) {
  std::string before;
  std::string after;
  const size_t gap = text.find("::");
  if (gap == std::string::npos) {
    const bool good = append_groups(text, true, before) && before.size() == 16;
    return good ? before : std::string();
  }
  if (text.find("::", gap + 1) != std::string::npos) return std::string();
  if (!append_groups(text.substr(0, gap), false, before)) return std::string();
  if (!append_groups(text.substr(gap + 2), true, after)) return std::string();
  if (before.size() + after.size() > 16) return std::string();
  return before + std::string(16 - before.size() - after.size(), '\0') + after;
}

}  // namespace tarn_fuzz
