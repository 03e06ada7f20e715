#ifndef TARN_TOOLS_SESSION_SETTINGS_H_
#define TARN_TOOLS_SESSION_SETTINGS_H_

#include <chrono>

namespace tarn_tool {

// What carries a conversation: datagrams on the tool's sockets, datagrams on the library's, or a
// TCP connection of the library's.
enum class Transport { kDatagrams, kAttached, kStream };

// How the conversations of this process are tuned.
struct SessionSettings {
  unsigned window = 512;  // segments, of sending and of receiving
  unsigned mtu = 1400;    // bytes in one message; never split, so also in one segment
  std::chrono::milliseconds timeout{5000};  // of silence, until the peer counts as gone
  Transport transport = Transport::kDatagrams;
};

constexpr unsigned kMinWindow = 16;
// The library leaves its sockets' buffers as the system makes them. They hold about this many
// messages; what comes on top of that in one burst is lost and has to be sent again.
constexpr unsigned kAttachedWindow = 64;
constexpr unsigned kMaxWindow = 4096;
constexpr unsigned kMaxMtu = 65000;
constexpr unsigned kMinTimeoutMs = 500;
constexpr unsigned kMaxTimeoutMs = 3600000;

// Sends the library's log, up to `level` (0 to 5), to standard error.
void show_library_log(int level);

// Configures and starts the library. Call once, before the first conversation.
void start_library(const SessionSettings& settings);

}  // namespace tarn_tool

#endif  // TARN_TOOLS_SESSION_SETTINGS_H_
