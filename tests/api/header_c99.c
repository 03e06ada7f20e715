/* Compiled as C, so that the header stays usable from it. */
#include "tarn/tarn.h"

#if __STDC_VERSION__ < 199901L
#error "the header needs C99"
#endif

static int on_data(char* data, int len, void* user) {
  (void)data;
  *(int*)user += len;
  return 0;
}

static int on_error(TarnError code, void* user) {
  *(int*)user = (int)code;
  return 0;
}

static void on_log(const char* text) { (void)text; }
static void on_log2(int level, const char* text) {
  (void)level;
  (void)text;
}

/* Takes the address of every call: a declaration that differs from the definition, or one that is
 * not exported, does not link. Returns how many there are. */
int tarn_header_from_c(void);
int tarn_header_from_c(void) {
  void (*const calls[])(void) = {
      (void (*)(void))tarn_version,
      (void (*)(void))tarn_init,
      (void (*)(void))tarn_fini,
      (void (*)(void))tarn_set_log_callback,
      (void (*)(void))tarn_set_log_callback2,
      (void (*)(void))tarn_config_mtu,
      (void (*)(void))tarn_config_rtx_timeout,
      (void (*)(void))tarn_config_active_timeout,
      (void (*)(void))tarn_config_send_window_size,
      (void (*)(void))tarn_config_recv_window_size,
      (void (*)(void))tarn_config_thread_safe,
      (void (*)(void))tarn_check_update_ms,
      (void (*)(void))tarn_update,
      (void (*)(void))tarn_create,
      (void (*)(void))tarn_destroy,
      (void (*)(void))tarn_wait_destroy,
      (void (*)(void))tarn_set_output_callback,
      (void (*)(void))tarn_set_recv_reliable_callback,
      (void (*)(void))tarn_set_recv_unreliable_callback,
      (void (*)(void))tarn_set_error_callback,
      (void (*)(void))tarn_set_conv,
      (void (*)(void))tarn_get_conv,
      (void (*)(void))tarn_input,
      (void (*)(void))tarn_send_reliable,
      (void (*)(void))tarn_send_unreliable,
      (void (*)(void))tarn_send_unreliable_nocp,
      (void (*)(void))tarn_send_kcp,
      (void (*)(void))tarn_set_recv_kcp_callback,
      (void (*)(void))tarn_check_packet,
      (void (*)(void))tarn_read_packet_conv,
  };
  int present = 0;
  unsigned i;
  for (i = 0; i < sizeof calls / sizeof calls[0]; ++i) present += calls[i] != 0;
  return present;
}

/* One conversation from C. Returns the bytes that the output callback saw. */
int tarn_conversation_from_c(void);
int tarn_conversation_from_c(void) {
  static int seen;
  static int code;
  char message[] = "hello";
  TarnDataCallback data_callback = on_data;
  TarnErrorCallback error_callback = on_error;
  TarnLogCallback log_callback = on_log;
  TarnLogCallback2 log_callback2 = on_log2;
  void* session;

  seen = 0;
  tarn_set_log_callback(0, log_callback);
  tarn_set_log_callback2(0, log_callback2);
  tarn_config_thread_safe(true);
  tarn_init();
  session = tarn_create();
  tarn_set_output_callback(session, data_callback, &seen);
  tarn_set_error_callback(session, error_callback, &code);
  tarn_send_unreliable(session, message, 5);
  tarn_destroy(session);
  tarn_set_log_callback(0, 0);
  tarn_set_log_callback2(0, 0);
  return seen;
}
