#include "tools/session_settings.h"

#include <fmt/format.h>
#include <tarn/tarn.h>

#include "tools/terminal.h"

namespace tarn_tool {
namespace {

// Acknowledgements leave with the cycle, and what is under way waits for them.
constexpr unsigned kCycleMs = 5;

void print_log(int level, const char* text) { say(stderr, fmt::format("[{}] {}", level, text)); }

}  // namespace

void show_library_log(int level) {
  if (level > 0) tarn_set_log_callback2(level, print_log);
}

void start_library(const SessionSettings& settings) {
  tarn_config_mtu(settings.mtu);
  tarn_config_rtx_timeout(kCycleMs);
  tarn_config_active_timeout(static_cast<unsigned>(settings.timeout.count()));
  tarn_init();
}

}  // namespace tarn_tool
