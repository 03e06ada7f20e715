#include "src/tarn_registry.h"

#include "src/tarn_log.h"

HandleRegistry<TarnSession>& tarn_sessions() {
  static HandleRegistry<TarnSession>& sessions = *new HandleRegistry<TarnSession>;
  return sessions;
}

oxutils::shared_ptr<TarnSession> tarn_add_instance() {
  oxutils::shared_ptr<TarnSession> session = oxutils::make_shared<TarnSession>();
  TARN_LOG_INFO("tarn %p created", static_cast<void*>(session.get()));
  if (tarn_sessions().add(session.get(), session)) return session;
  // Its re-send timer is on the worker already: the session goes when the timer has gone.
  session->stop();
  session->keep_until_worker_has_run();
  return oxutils::shared_ptr<TarnSession>();
}

oxutils::shared_ptr<TarnSession> tarn_get_instance(void* handle) {
  return tarn_sessions().get(handle);
}
