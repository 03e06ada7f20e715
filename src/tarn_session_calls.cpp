// The exported calls on sessions and datagrams: look the handle up, log and return if it is bad,
// call one method.
#include <utility>

#include "src/borrowed_bytes.h"
#include "src/data_view.h"
#include "src/tarn_log.h"
#include "src/tarn_registry.h"
#include "src/tarn_session.h"
#include "src/tarn_thread.h"
#include "src/wire_format.h"
#include "tarn/tarn.h"

namespace {

using SessionPtr = oxutils::shared_ptr<TarnSession>;
using SessionHold = HandleRegistry<TarnSession>::Hold;

constexpr int kFailed = -1;

void log_kcp() { TARN_LOG_ERROR("kcp not surported"); }

void log_no_output() { TARN_LOG_WARN("tarn_set_output_callback fail,bad tarn %%"); }
void log_no_recv_reliable(void* handle) {
  TARN_LOG_WARN("tarn_set_recv_reliable_callback fail,bad tarn %p", handle);
}
void log_no_recv_unreliable(void* handle) {
  TARN_LOG_WARN("tarn_set_recv_unreliable_callback fail,bad tarn %p", handle);
}
void log_no_error(void* handle) {
  TARN_LOG_WARN("tarn_set_error_callback fail,bad tarn %p", handle);
}
void log_deletion(void* handle) { TARN_LOG_INFO("tarn %p del", handle); }

// What tarn_del_instance() says of a handle that is not registered.
void log_no_instance(void* handle) {
  log_no_output();
  log_no_recv_reliable(handle);
  log_no_recv_unreliable(handle);
  log_no_error(handle);
  log_kcp();
  log_deletion(handle);
}

// Bound with a counted reference: until the deletion has run no other session can have the same
// address.
void del_session(SessionPtr session) { tarn_del_instance(session.get()); }

void post_deletion(SessionPtr session) {
  TarnThread::instance()->run(oxutils::Function(&del_session, std::move(session)));
}

inline void input_held(TarnSession& session, char* data, int len) {
  TARN_LOG_VERBOSE("tarn %p input len %d", static_cast<void*>(&session), len);
  if (is_missing(data, len)) {
    TARN_LOG_WARN("tarn_input fail,null data tarn %p", static_cast<void*>(&session));
    return;
  }
  session.input(data, static_cast<size_t>(usable_length(len)));
}

}  // namespace

void tarn_del_instance(void* handle) {
  tarn_set_output_callback(handle, nullptr, nullptr);
  tarn_set_recv_reliable_callback(handle, nullptr, nullptr);
  tarn_set_recv_unreliable_callback(handle, nullptr, nullptr);
  tarn_set_error_callback(handle, nullptr, nullptr);
  tarn_set_recv_kcp_callback(handle, nullptr, nullptr);  // clears nothing; its line is in the log
  log_deletion(handle);
  tarn_sessions().remove(handle);
}

void tarn_destroy_later(void* handle) {
  SessionPtr session = tarn_get_instance(handle);
  if (session) {
    post_deletion(std::move(session));
  } else {
    TarnThread::instance()->run(oxutils::Function(&log_no_instance, handle));
  }
}

void* tarn_create(void) {
  const SessionPtr session = tarn_add_instance();
  if (!session) {
    TARN_LOG_WARN("tarn create failed");
    return nullptr;
  }
  try {
    session->start();
  } catch (...) {
    tarn_sessions().remove(session.get());
    tarn_give_up(session);
    throw;
  }
  return session.get();
}

int tarn_destroy(void* handle) { return tarn_wait_destroy(handle, 0); }

int tarn_wait_destroy(void* handle, unsigned int wait_ms) {
  TARN_LOG_INFO("tarn %p destroy, wait time: %d", handle, static_cast<int>(wait_ms));
  const SessionPtr session = tarn_get_instance(handle);
  if (!session) {
    TARN_LOG_WARN("tarn_wait_destroy fail,bad tarn %%");
    return kFailed;
  }
  session->stop(wait_ms);
  post_deletion(session);
  return 0;
}

void tarn_set_output_callback(void* handle, TarnDataCallback callback, void* user) {
  const SessionHold session = tarn_sessions().hold(handle);
  if (!session) return log_no_output();
  session->set_output_callback(callback, user);
}

void tarn_set_recv_reliable_callback(void* handle, TarnDataCallback callback, void* user) {
  const SessionHold session = tarn_sessions().hold(handle);
  if (!session) return log_no_recv_reliable(handle);
  session->set_recv_reliable_callback(callback, user);
}

void tarn_set_recv_unreliable_callback(void* handle, TarnDataCallback callback, void* user) {
  const SessionHold session = tarn_sessions().hold(handle);
  if (!session) return log_no_recv_unreliable(handle);
  session->set_recv_unreliable_callback(callback, user);
}

void tarn_set_error_callback(void* handle, TarnErrorCallback callback, void* user) {
  const SessionHold session = tarn_sessions().hold(handle);
  if (!session) return log_no_error(handle);
  session->set_error_callback(callback, user);
}

void tarn_set_recv_kcp_callback(void*, TarnDataCallback, void*) { log_kcp(); }

void tarn_set_conv(void* handle, unsigned int conv) {
  const SessionHold session = tarn_sessions().hold(handle);
  if (!session) {
    TARN_LOG_WARN("tarn_set_conv fail,bad tarn %%");
    return;
  }
  // Never negative, however long a long is.
  TARN_LOG_VERBOSE("tarn %p set conv %lld", handle, static_cast<long long>(conv));
  session->set_conv(conv);
}

unsigned int tarn_get_conv(void* handle) {
  const SessionHold session = tarn_sessions().hold(handle);
  if (!session) {
    TARN_LOG_WARN("tarn_get_conv fail,bad tarn %%");
    return 0;
  }
  return session->get_conv();
}

void tarn_input(void* handle, char* data, int len) {
  const SessionHold session = tarn_sessions().hold(handle);
  if (!session) {
    TARN_LOG_WARN("tarn_input fail,bad tarn %p", handle);
    return;
  }
  input_held(*session.pointer(), data, len);
}

void tarn_input_held(TarnSession& session, char* data, int len) { input_held(session, data, len); }

void tarn_send_reliable(void* handle, char* data, int len) {
  const SessionHold session = tarn_sessions().hold(handle);
  if (!session) {
    TARN_LOG_WARN("tarn_send_reliable fail,bad tarn %p", handle);
    return;
  }
  TARN_LOG_VERBOSE("tarn %p send reliable len %d", handle, len);
  if (is_missing(data, len)) {
    TARN_LOG_WARN("tarn_send_reliable fail,null data tarn %p", handle);
    return;
  }
  session->send_reliable(data, static_cast<size_t>(usable_length(len)));
}

void tarn_send_unreliable(void* handle, char* data, int len) {
  const SessionHold session = tarn_sessions().hold(handle);
  if (!session) {
    TARN_LOG_WARN("tarn_send_unreliable fail,bad tarn %p", handle);
    return;
  }
  TARN_LOG_VERBOSE("tarn %p send unreliable len %d", handle, len);
  if (is_missing(data, len)) {
    TARN_LOG_WARN("tarn_send_unreliable fail,null data tarn %p", handle);
    return;
  }
  Block block(data, static_cast<unsigned long>(usable_length(len)));
  DataView view = DataView::lend(block);
  session->send_unreliable(view);
}

void tarn_send_unreliable_nocp(void* handle, char* buf, int len) {
  const SessionHold session = tarn_sessions().hold(handle);
  if (!session) {
    TARN_LOG_WARN("tarn_send_unreliable fail,bad tarn %p", handle);
    return;
  }
  TARN_LOG_VERBOSE("tarn %p send unreliable len %d", handle, len);
  if (is_missing(buf, len)) {
    TARN_LOG_WARN("tarn_send_unreliable_nocp fail,null data tarn %p", handle);
    return;
  }
  session->send_unreliable(buf, usable_length(len));
}

void tarn_send_kcp(void*, char*, int) { log_kcp(); }

int tarn_check_packet(char* data, int len) {
  if (is_missing(data, len)) {
    TARN_LOG_WARN("tarn_check_packet fail,null data");
    return kFailed;
  }
  return TarnSession::check_packet(data, len);
}

unsigned int tarn_read_packet_conv(char* data, int len) {
  if (is_missing(data, len)) {
    TARN_LOG_WARN("tarn_read_packet_conv fail,null data");
    return wire::kNoPacket;
  }
  return TarnSession::read_conv(data, len);
}
