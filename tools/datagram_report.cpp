#include "tools/datagram_report.h"

#include <fmt/format.h>

#include "tools/datagram.h"

namespace tarn_tool {
namespace {

constexpr std::size_t kPreviewBytes = 16;
constexpr std::uint32_t kNoDatagram = 0xffffffff;
constexpr std::string_view kSeparators = " \t\r\n\v\f:-,";

int digit_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string preview(std::string_view payload) {
  const std::string_view shown = payload.substr(0, kPreviewBytes);
  std::string hex;
  std::string text;
  for (const char c : shown) {
    const unsigned byte = static_cast<unsigned char>(c);
    hex += fmt::format("{:02x} ", byte);
    text += byte >= 0x20 && byte < 0x7f ? c : '.';
  }
  return fmt::format("{}|{}|{}", hex, text, payload.size() > shown.size() ? " ..." : "");
}

std::string payload_text(std::string_view payload) {
  return fmt::format("{} byte{}: {}", payload.size(), payload.size() == 1 ? "" : "s",
                     preview(payload));
}

const char* flag_text(unsigned flag) {
  switch (flag) {
    case kWhole:
      return "a whole message";
    case kFirst:
      return "the first piece of a message";
    case kLast:
      return "the last piece of a message";
    default:
      return "a middle piece of a message";
  }
}

const char* type_text(unsigned type) {
  switch (type) {
    case kReliable:
      return "reliable";
    case kUnreliable:
      return "unreliable";
    case kAckList:
      return "ack list";
    case kUna:
      return "una";
    case kBye:
      return "bye";
    default:
      return "conv";
  }
}

std::string ack_text(std::string_view body) {
  std::string text = "received out of order:";
  for (std::size_t at = 0; at + 2 <= body.size(); at += 2) {
    text += fmt::format(" {}", read_u16(body.substr(at)));
  }
  return text;
}

// What a sound body says.
std::string body_text(const Segment& segment) {
  switch (segment.type) {
    case kReliable:
      return fmt::format("seq {}, {}, {}", read_u16(segment.body), flag_text(segment.flag),
                         payload_text(segment.body.substr(2)));
    case kUnreliable:
      return payload_text(segment.body);
    case kAckList:
      return ack_text(segment.body);
    case kUna:
      return fmt::format("received in order up to seq {}", read_u16(segment.body));
    case kBye:
      return "the peer is leaving";
    default:
      return fmt::format("conversation id {0} (0x{0:08x})", read_u32(segment.body));
  }
}

std::string segment_text(const Segment& segment, const std::string& problem) {
  return fmt::format("{:5}  {:<10}  type {} flag {} length {}: {}\n", segment.offset,
                     type_text(segment.type), segment.type, segment.flag, segment.body.size(),
                     problem.empty() ? body_text(segment) : "REFUSED, " + problem);
}

// A first segment decides: the start of a conversation is reliable number 0 without an id before
// it.
int check_of(const Segment& first) {
  if (first.type != kReliable) return 1;
  if (first.body.size() < 2) return -1;
  return read_u16(first.body) == 0 ? 0 : 1;
}

std::string header_text(const DatagramReader& reader) {
  return fmt::format("    0  header      magic \"{}\" version {}{}\n", reader.magic(),
                     reader.version(),
                     reader.version() == 0 ? "" : " (not 0: reported, and read all the same)");
}

const char* check_text(int check) {
  switch (check) {
    case 0:
      return "the start of a conversation without id";
    case 1:
      return "part of a conversation";
    default:
      return "no datagram of this protocol";
  }
}

std::string summary(const DatagramReport& report) {
  const std::string conv = report.conv == kNoDatagram ? "none can be read"
                           : report.conv == 0         ? "none"
                                                      : fmt::format("0x{:08x}", report.conv);
  return fmt::format("       check {}: {}; conversation id: {}\n", report.check,
                     check_text(report.check), conv);
}

// Finds the conversation id as a demultiplexer does: the first conv segment, unless the walk ends
// before it.
class ConvSearch {
 public:
  void look_at(const Segment& segment) {
    if (done_ || segment.type != kConv) return;
    done_ = true;
    if (segment.body.size() >= 4) conv_ = read_u32(segment.body);
  }
  std::uint32_t conv() const { return conv_; }

 private:
  bool done_ = false;
  std::uint32_t conv_ = 0;
};

void walk(DatagramReader& reader, DatagramReport& report) {
  Segment segment;
  ConvSearch search;
  bool first = true;
  while (reader.next(segment)) {
    const std::string problem = segment_problem(segment);
    if (!problem.empty()) report.accepted = false;
    if (first) report.check = check_of(segment);
    first = false;
    search.look_at(segment);
    report.text += segment_text(segment, problem);
  }
  report.conv = search.conv();
}

}  // namespace

DatagramReport report_datagram(std::string_view datagram) {
  DatagramReport report;
  report.text =
      fmt::format("datagram of {} byte{}\n", datagram.size(), datagram.size() == 1 ? "" : "s");
  DatagramReader reader(datagram);
  if (reader.has_header()) {
    report.text += header_text(reader);
    walk(reader, report);
  } else {
    report.conv = kNoDatagram;
  }
  const bool empty = reader.has_header() && datagram.size() == kHeaderSize;
  const std::string problem = empty ? "there is no segment" : reader.problem();
  if (!problem.empty()) {
    report.accepted = false;
    report.text += fmt::format("{:5}  REFUSED, {}\n", reader.position(), problem);
  }
  if (report.check < 0) report.accepted = false;
  report.text += summary(report);
  return report;
}

std::optional<std::string> parse_hex(std::string_view text) {
  std::string bytes;
  while (!text.empty()) {
    if (kSeparators.find(text.front()) != std::string_view::npos) {
      text.remove_prefix(1);
      continue;
    }
    const bool prefixed = text.size() >= 2 && text[0] == '0' && (text[1] | 0x20) == 'x';
    if (prefixed) text.remove_prefix(2);
    if (text.size() < 2) return std::nullopt;
    const int high = digit_value(text[0]);
    const int low = digit_value(text[1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes += static_cast<char>(high << 4 | low);
    text.remove_prefix(2);
  }
  return bytes;
}

}  // namespace tarn_tool
