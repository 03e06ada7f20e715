// TarnAddr: its parsers beside the system's, over texts that nobody chose.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tarn_io/tarn_addr.h"

namespace {

constexpr int kRounds = 60000;

struct Parsed {
  int result;
  std::vector<unsigned char> bytes;
};

bool operator==(const Parsed& a, const Parsed& b) {
  return a.result == b.result && (a.result != 1 || a.bytes == b.bytes);
}

Parsed by_system(int family, const std::string& text) {
  Parsed parsed{0, std::vector<unsigned char>(16)};
  parsed.result = inet_pton(family, text.c_str(), parsed.bytes.data());
  return parsed;
}

Parsed by_library(int family, const std::string& text) {
  Parsed parsed{0, std::vector<unsigned char>(16)};
  parsed.result = family == AF_INET ? TarnAddr::inet_pton4(text.c_str(), parsed.bytes.data())
                                    : TarnAddr::inet_pton6(text.c_str(), parsed.bytes.data());
  return parsed;
}

class Texts {
 public:
  unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }

  // Mostly an address, at times with one character changed, added or gone.
  std::string near_an_address(int family) {
    std::string text = family == AF_INET ? ipv4() : ipv6();
    if (below(2) == 0) return text;
    const size_t at = below(static_cast<unsigned>(text.size()));
    const char other = kAlphabet[below(sizeof kAlphabet - 1)];
    if (below(3) == 0) return text.erase(at, 1);
    if (below(2) == 0) return text.insert(at, 1, other);
    text[at] = other;
    return text;
  }

 private:
  static constexpr char kAlphabet[] = "0129afAF:.: gx";

  std::string ipv4() {
    std::string text;
    for (int i = 0; i < 4; ++i) text += (i > 0 ? "." : "") + std::to_string(below(300));
    return text;
  }

  std::string group() {
    char text[8];
    snprintf(text, sizeof text, "%x", below(2) == 0 ? below(0x10000) : below(16));
    return text;
  }

  std::string ipv6() {
    std::string text;
    const unsigned count = 1 + below(9);
    const unsigned gap = below(10);
    for (unsigned i = 0; i < count; ++i) {
      if (i == gap) text += i == 0 ? "::" : ":";
      text += group();
      if (i + 1 < count) text += ':';
    }
    if (gap == count) text += "::";
    if (below(4) == 0) text += ":" + ipv4();
    return text;
  }

  std::mt19937 random_{20260101};
};

constexpr char Texts::kAlphabet[];

// The system refuses what the library reads on purpose: numbers with leading zeros, and a "::" that
// stands for no group at all.
bool rules_differ(const std::string& text) {
  const std::string separators = ":.";
  size_t digits = 0;
  bool leading_zero = false;
  size_t colons = 0;
  size_t dots = 0;
  for (const char c : text) {
    if (c == ':') ++colons;
    if (c == '.') ++dots;
    if (separators.find(c) != std::string::npos) {
      digits = 0;
      leading_zero = false;
      continue;
    }
    if (leading_zero && digits >= 1) return true;
    if (digits == 0) leading_zero = c == '0';
    if (++digits > 4) return true;
  }
  const bool has_gap = text.find("::") != std::string::npos;
  return has_gap && colons + (dots > 0 ? 1 : 0) >= 8;
}

void compare(int family) {
  Texts texts;
  int accepted = 0;
  int compared = 0;
  for (int i = 0; i < kRounds; ++i) {
    const std::string text = texts.near_an_address(family);
    if (rules_differ(text)) continue;
    const Parsed expected = by_system(family, text);
    ASSERT_TRUE(by_library(family, text) == expected) << '"' << text << '"';
    ++compared;
    accepted += expected.result == 1 ? 1 : 0;
  }
  // Otherwise the texts would show nothing.
  EXPECT_GT(accepted, kRounds / 20);
  EXPECT_GT(compared - accepted, kRounds / 20);
}

}  // namespace

TEST(ParseIpv4, AgreesWithTheSystemWhereTheRulesAreTheSame) { compare(AF_INET); }

TEST(ParseIpv6, AgreesWithTheSystemWhereTheRulesAreTheSame) { compare(AF_INET6); }

TEST(ParseIpv6, ReadsEveryTextThatTheSystemWrites) {
  Texts texts;
  for (int i = 0; i < kRounds / 10; ++i) {
    unsigned char address[16] = {};
    for (unsigned char& byte : address) {
      if (texts.below(3) > 0) byte = static_cast<unsigned char>(texts.below(256));
    }
    if (texts.below(2) == 0) memset(address + texts.below(8), 0, 8);
    char text[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, address, text, sizeof text);

    unsigned char parsed[16] = {};
    ASSERT_EQ(TarnAddr::inet_pton6(text, parsed), 1) << text;
    ASSERT_EQ(memcmp(parsed, address, sizeof address), 0) << text;
  }
}
