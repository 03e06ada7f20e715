#include "tests/sim/settings.h"

#include "tarn/tarn.h"
#include "tests/sim/boundary.h"

namespace tarn_sim {

void apply(const Settings& settings) {
  const InsideLibrary inside;
  tarn_config_mtu(settings.mtu);
  tarn_config_rtx_timeout(settings.rtx_timeout);
  tarn_config_active_timeout(settings.active_timeout);
  tarn_config_send_window_size(settings.send_window);
  tarn_config_recv_window_size(settings.recv_window);
  tarn_config_thread_safe(settings.thread_safe);
}

}  // namespace tarn_sim
