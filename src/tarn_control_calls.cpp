// The exported calls of tarn/control.h: look the handle up, log and return if it is bad, call one
// method.
#include <errno.h>

#include "src/tarn_log.h"
#include "src/tarn_registry.h"
#include "src/tarn_session.h"
#include "tarn/control.h"

namespace {

using SessionHold = HandleRegistry<TarnSession>::Hold;

int log_bad(const char* call, void* handle) {
  TARN_LOG_WARN("%s fail,bad tarn %p", call, handle);
  return -EBADF;
}

}  // namespace

int tarn_set_option(void* handle, TarnOption option, long long value) {
  const SessionHold session = tarn_sessions().hold(handle);
  return session ? session->set_option(option, value) : log_bad("tarn_set_option", handle);
}

int tarn_get_option(void* handle, TarnOption option, long long* value) {
  const SessionHold session = tarn_sessions().hold(handle);
  return session ? session->get_option(option, value) : log_bad("tarn_get_option", handle);
}

int tarn_set_profile(void* handle, TarnProfile profile) {
  const SessionHold session = tarn_sessions().hold(handle);
  return session ? session->set_profile(profile) : log_bad("tarn_set_profile", handle);
}

int tarn_try_send_reliable(void* handle, const void* data, size_t len) {
  const SessionHold session = tarn_sessions().hold(handle);
  return session ? session->try_send_reliable(static_cast<const char*>(data), len)
                 : log_bad("tarn_try_send_reliable", handle);
}

size_t tarn_send_room(void* handle) {
  const SessionHold session = tarn_sessions().hold(handle);
  if (session) return session->send_room();
  log_bad("tarn_send_room", handle);
  return 0;
}

int tarn_set_writable_callback(void* handle, TarnWritableCallback callback, void* user) {
  const SessionHold session = tarn_sessions().hold(handle);
  return session ? session->set_writable_callback(callback, user)
                 : log_bad("tarn_set_writable_callback", handle);
}

int tarn_pause_receive(void* handle, int on) {
  const SessionHold session = tarn_sessions().hold(handle);
  return session ? session->pause_receive(on != 0) : log_bad("tarn_pause_receive", handle);
}

int tarn_get_stats(void* handle, TarnStats* stats, size_t size) {
  const SessionHold session = tarn_sessions().hold(handle);
  return session ? session->get_stats(stats, size) : log_bad("tarn_get_stats", handle);
}
