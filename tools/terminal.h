#ifndef TARN_TOOLS_TERMINAL_H_
#define TARN_TOOLS_TERMINAL_H_

#include <cstdio>
#include <string>

namespace tarn_tool {

// Writes `line` and a line end. A stream that nobody reads any more is not an error here: what
// counts is the work and the exit status.
inline void say(std::FILE* stream, std::string line) {
  line += '\n';
  std::fputs(line.c_str(), stream);
  std::fflush(stream);
}

// `text` with everything that could steer a terminal replaced by "?": names come from the peer.
inline std::string printable(std::string text) {
  for (char& c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) c = '?';
  }
  return text;
}

}  // namespace tarn_tool

#endif  // TARN_TOOLS_TERMINAL_H_
