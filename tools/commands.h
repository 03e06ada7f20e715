#ifndef TARN_TOOLS_COMMANDS_H_
#define TARN_TOOLS_COMMANDS_H_

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/link_impairment.h"
#include "tools/session_settings.h"

namespace tarn_tool {

// The commands, apart from how their arguments are written. Each runs to its end and returns the
// process's exit status.

struct SendOptions {
  std::string target;              // HOST:PORT
  std::vector<std::string> files;  // at least one; "-" is standard input
  SessionSettings settings;
};
int run_send(const SendOptions& options);

struct ReceiveOptions {
  std::string listener;               // [HOST:]PORT
  std::optional<std::string> output;  // "-" is standard output
  bool once = false;
  SessionSettings settings;
};
int run_receive(const ReceiveOptions& options);

struct RelayOptions {
  std::string listener;  // [HOST:]PORT
  std::string target;    // HOST:PORT
  LinkSettings link;
  std::uint64_t seed = 1;
  std::optional<Microseconds> idle;  // ends after this long without a datagram
};
int run_relay(const RelayOptions& options);

// `input` is hexadecimal digits, the name of a file with a datagram, or "-" for standard input.
int run_inspect(const std::string& input);

}  // namespace tarn_tool

#endif  // TARN_TOOLS_COMMANDS_H_
