#include <fmt/format.h>
#include <sys/stat.h>
#include <tarn/tarn.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "tools/commands.h"
#include "tools/datagram_report.h"
#include "tools/exit_status.h"
#include "tools/terminal.h"

namespace tarn_tool {
namespace {

// Far more than a datagram takes, also when it is spelled with spaces.
constexpr std::size_t kMaxInput = 1 << 20;
constexpr std::size_t kMaxDatagram = 65535;

std::optional<std::string> read_all(std::FILE* stream) {
  std::string text(kMaxInput + 1, '\0');
  text.resize(std::fread(text.data(), 1, text.size(), stream));
  if (std::ferror(stream) != 0 || text.size() > kMaxInput) return std::nullopt;
  return text;
}

std::optional<std::string> read_file(const std::string& path) {
  if (path == "-") return read_all(stdin);
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                             std::fclose);
  return file ? read_all(file.get()) : std::nullopt;
}

bool is_file(const std::string& path) {
  struct stat status = {};
  return path == "-" || stat(path.c_str(), &status) == 0;
}

// The datagram that `input` names; nothing, and `error`, when there is none. A file of nothing but
// hexadecimal digits is read as such: no datagram consists of them, since none begins with one.
std::optional<std::string> load(const std::string& input, std::string& error) {
  if (!is_file(input)) {
    auto bytes = parse_hex(input);
    if (!bytes) error = fmt::format("\"{}\" is neither a file nor hexadecimal", printable(input));
    return bytes;
  }
  auto content = read_file(input);
  if (!content) {
    error = fmt::format("cannot read {}: {}", input, std::strerror(errno == 0 ? EFBIG : errno));
    return std::nullopt;
  }
  auto bytes = parse_hex(*content);
  return bytes ? bytes : content;
}

std::string library_text(std::string& datagram) {
  const int length = static_cast<int>(datagram.size());
  return fmt::format("library: tarn_check_packet {}, tarn_read_packet_conv 0x{:08x}",
                     tarn_check_packet(datagram.data(), length),
                     tarn_read_packet_conv(datagram.data(), length));
}

}  // namespace

int run_inspect(const std::string& input) {
  std::string error;
  auto datagram = load(input, error);
  if (datagram && datagram->size() > kMaxDatagram) {
    error = fmt::format("{} bytes are more than a datagram holds", datagram->size());
    datagram.reset();
  }
  if (!datagram) {
    say(stderr, fmt::format("tarn: {}", error));
    return kFailure;
  }
  const DatagramReport report = report_datagram(*datagram);
  say(stdout, report.text + library_text(*datagram));
  return report.accepted ? kSuccess : kRefused;
}

}  // namespace tarn_tool
