#include "tests/model/trace.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace tarn_model {
namespace {

bool muted = false;

constexpr size_t kLinesShown = 8;
constexpr size_t kLinesBefore = 2;
constexpr size_t kBytesShown = 40;

// Names of results, in lower case.
bool is_text(const std::string& bytes) {
  return !bytes.empty() && std::all_of(bytes.begin(), bytes.end(), [](char byte) {
    return byte == ' ' || (byte >= 'a' && byte <= 'z');
  });
}

std::string excerpt(const char* side, const Trace& trace, size_t from) {
  std::string text = std::string("  ") + side + ":\n";
  const size_t end = std::min(trace.size(), from + kLinesShown);
  for (size_t i = from; i < end; ++i) text += "    " + describe(trace[i]) + "\n";
  if (end < trace.size()) text += "    ... " + std::to_string(trace.size() - end) + " more\n";
  if (end == trace.size()) text += "    (nothing more)\n";
  return text;
}

}  // namespace

void log(Trace& trace, int level, const char* format, ...) {
  if (muted) return;
  char text[256];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  trace.push_back({What::kLog, level, text});
}

void mute_log(bool on) { muted = on; }

const char* name(What what) {
  switch (what) {
    case What::kLog:
      return "log";
    case What::kResult:
      return "result";
    case What::kDatagram:
      return "datagram";
    case What::kReliable:
      return "reliable message";
    case What::kUnreliable:
      return "unreliable message";
    case What::kError:
      return "error";
    case What::kResend:
      return "re-sent";
  }
  return "?";
}

std::string describe_bytes(const std::string& bytes) {
  std::string text = std::to_string(bytes.size()) + " bytes";
  for (const char byte : bytes.substr(0, kBytesShown)) {
    char hex[4];
    snprintf(hex, sizeof hex, " %02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    text += hex;
  }
  return bytes.size() > kBytesShown ? text + " ..." : text;
}

std::string describe(const Event& event) {
  const std::string head = std::string(name(event.what)) + " " + std::to_string(event.number);
  if (event.what == What::kLog) return head + " \"" + event.bytes + "\"";
  if (is_text(event.bytes)) return head + ", " + event.bytes;
  return event.bytes.empty() ? head : head + ", " + describe_bytes(event.bytes);
}

std::string difference(const Trace& model, const Trace& library) {
  if (model == library) return std::string();
  const size_t common = std::min(model.size(), library.size());
  size_t at = 0;
  while (at < common && model[at] == library[at]) ++at;
  const size_t from = at - std::min(at, kLinesBefore);
  return "event " + std::to_string(at + 1) + " differs\n" + excerpt("model", model, from) +
         excerpt("library", library, from);
}

}  // namespace tarn_model
