#include "tools/session_settings.h"

#include <fmt/format.h>
#include <tarn/tarn.h>

#include <algorithm>

#include "tools/terminal.h"

namespace tarn_tool {
namespace {

// Credit follows what the peer has delivered, acknowledgements can come later than the credit: with
// no ledger, the segments between the two need room of their own. Each loss of an acknowledgement
// lets at most a part of a window of them pile up, until the next one arrives.
constexpr unsigned kHeadroom = 4;
constexpr unsigned kLargestLibraryWindow = 32767;

unsigned library_window(const SessionSettings& settings) {
  if (settings.transport != Transport::kAttached) return settings.window;
  return std::min(kHeadroom * settings.window, kLargestLibraryWindow);
}

void print_log(int level, const char* text) { say(stderr, fmt::format("[{}] {}", level, text)); }

}  // namespace

void show_library_log(int level) {
  if (level > 0) tarn_set_log_callback2(level, print_log);
}

void start_library(const SessionSettings& settings) {
  tarn_config_mtu(settings.mtu);
  const unsigned window = library_window(settings);
  tarn_config_send_window_size(window);
  tarn_config_recv_window_size(window);
  tarn_config_active_timeout(static_cast<unsigned>(settings.timeout.count()));
  tarn_init();
}

}  // namespace tarn_tool
