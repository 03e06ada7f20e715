// Settings: the settings of the process while a benchmark runs.
#ifndef TARN_BENCH_SETTINGS_H_
#define TARN_BENCH_SETTINGS_H_

#include "tarn/tarn.h"

namespace bench {

// They outlive whoever stores them, so every benchmark stores all of them. The defaults are the
// library's, but that nobody hears of silence.
struct Settings {
  unsigned int rtx_timeout = 50;            // ms
  unsigned int active_timeout = 3'600'000;  // ms
  unsigned int window = 32;                 // segments, of sending and of receiving

  void apply() const {
    tarn_config_rtx_timeout(rtx_timeout);
    tarn_config_active_timeout(active_timeout);
    tarn_config_send_window_size(window);
    tarn_config_recv_window_size(window);
  }
};

// For traffic alone: the cycle runs so seldom that it adds nothing to what is measured.
inline Settings traffic_settings() {
  Settings settings;
  settings.rtx_timeout = 1000;
  return settings;
}

}  // namespace bench

#endif  // TARN_BENCH_SETTINGS_H_
