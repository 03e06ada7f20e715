// The exported calls that concern no single session.
#include "src/tarn_config.h"
#include "src/tarn_log.h"
#include "src/tarn_thread.h"
#include "tarn/tarn.h"

namespace {

constexpr char kVersionText[] = "1.3.1.20250319_";

}  // namespace

void tarn_version(const char** version) {
  if (version != nullptr) *version = kVersionText;
}

void tarn_init(void) {
  TARN_LOG_INFO("tarn init");
  TarnThread::instance()->start();
}

void tarn_fini(void) {
  TARN_LOG_INFO("tarn fini");
  TarnThread::instance()->stop();
}

void tarn_set_log_callback(int level, TarnLogCallback callback) {
  TARN_LOG_INFO("tarn log level %d", level);
  TarnLog* const log = TarnLog::instance();
  log->set_log_level(level);
  log->set_log_callback(callback);
}

void tarn_set_log_callback2(int level, TarnLogCallback2 callback) {
  TARN_LOG_INFO("tarn log level %d", level);
  TarnLog* const log = TarnLog::instance();
  log->set_log_level(level);
  log->set_log_callback2(callback);
}

void tarn_config_mtu(unsigned int bytes) { TarnConfig::instance()->mtu = bytes; }

void tarn_config_rtx_timeout(unsigned int ms) { TarnConfig::instance()->rtx_timeout = ms; }

void tarn_config_active_timeout(unsigned int ms) { TarnConfig::instance()->active_timeout = ms; }

void tarn_config_send_window_size(unsigned int segments) {
  TarnConfig::instance()->send_window_size = segments;
}

void tarn_config_recv_window_size(unsigned int segments) {
  TarnConfig::instance()->recv_window_size = segments;
}

int tarn_check_update_ms(void) { return TarnThread::instance()->get_timeout(); }

void tarn_update(void) { TarnThread::instance()->update(); }
