#ifndef TARN_TOOLS_DATAGRAM_REPORT_H_
#define TARN_TOOLS_DATAGRAM_REPORT_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarn_tool {

// What a datagram is, in words.
struct DatagramReport {
  std::string text;        // lines, each with its line end
  bool accepted = true;    // false when all or a part of the datagram would be refused
  int check = -1;          // as tarn_check_packet() has to see it
  std::uint32_t conv = 0;  // as tarn_read_packet_conv() has to see it
};

// Reads one datagram without the library.
DatagramReport report_datagram(std::string_view datagram);

// The bytes that `text` spells in hexadecimal digits. Space of any kind, ":", "-", "," and a "0x"
// before a pair are skipped. Nothing when anything else occurs or a digit is left over.
std::optional<std::string> parse_hex(std::string_view text);

}  // namespace tarn_tool

#endif  // TARN_TOOLS_DATAGRAM_REPORT_H_
