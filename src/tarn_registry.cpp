#include "src/tarn_registry.h"

#include <utility>

#include "src/tarn_log.h"
#include "src/tarn_thread.h"

namespace {

void retire(oxutils::shared_ptr<TarnSession> session) { session->retire(); }

}  // namespace

HandleRegistry<TarnSession>& tarn_sessions() {
  static HandleRegistry<TarnSession>& sessions = *new HandleRegistry<TarnSession>;
  return sessions;
}

oxutils::shared_ptr<TarnSession> tarn_add_instance() {
  oxutils::shared_ptr<TarnSession> session = oxutils::make_shared<TarnSession>();
  try {
    TARN_LOG_INFO("tarn %p created", static_cast<void*>(session.get()));
    if (tarn_sessions().add(session.get(), session)) return session;
  } catch (...) {
    tarn_give_up(std::move(session));
    throw;
  }
  tarn_give_up(std::move(session));
  return oxutils::shared_ptr<TarnSession>();
}

void tarn_give_up(oxutils::shared_ptr<TarnSession> session) {
  TarnThread::instance()->run(oxutils::Function(&retire, std::move(session)));
}

oxutils::shared_ptr<TarnSession> tarn_get_instance(void* handle) {
  return tarn_sessions().get(handle);
}
