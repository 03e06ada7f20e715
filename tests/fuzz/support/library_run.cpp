#include "tests/fuzz/support/library_run.h"

#include <string.h>

#include "src/tarn_registry.h"
#include "tarn/tarn.h"
#include "tests/fuzz/support/fuzz_check.h"

namespace tarn_fuzz {
namespace {

int threshold = 0;

void look_at_line(int level, const char* text) {
  FUZZ_CHECK(level >= 1 && level <= threshold);
  FUZZ_CHECK(strlen(text) < 1024);
}

void set_default_settings() {
  tarn_config_mtu(1400);
  tarn_config_rtx_timeout(50);
  tarn_config_active_timeout(5000);
  tarn_config_send_window_size(32);
  tarn_config_recv_window_size(32);
  tarn_config_thread_safe(true);
}

}  // namespace

LibraryRun::LibraryRun(uint64_t first_ms) : clock_(first_ms) { set_default_settings(); }

LibraryRun::~LibraryRun() {
  log_at(0);
  set_default_settings();
}

void LibraryRun::log_at(int level) {
  // The change itself is logged, still under the old threshold.
  if (level > threshold) threshold = level;
  tarn_set_log_callback2(level, level > 0 ? look_at_line : nullptr);
  threshold = level;
}

bool is_registered(void* handle) { return static_cast<bool>(tarn_get_instance(handle)); }

}  // namespace tarn_fuzz
