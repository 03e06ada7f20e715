#include "src/tarn_registry.h"

#include <utility>

#include "src/tarn_log.h"

TarnRegistry& TarnRegistry::instance() {
  static TarnRegistry& registry = *new TarnRegistry;
  return registry;
}

bool TarnRegistry::add(const oxutils::shared_ptr<TarnSession>& session) {
  const oxutils::scoped_lock hold(lock_);
  return sessions_.emplace(session.get(), session).second;
}

oxutils::shared_ptr<TarnSession> TarnRegistry::get(void* handle) const {
  const oxutils::scoped_lock hold(lock_);
  const auto found = sessions_.find(handle);
  return found != sessions_.end() ? found->second : oxutils::shared_ptr<TarnSession>();
}

oxutils::shared_ptr<TarnSession> TarnRegistry::remove(void* handle) {
  const oxutils::scoped_lock hold(lock_);
  const auto found = sessions_.find(handle);
  if (found == sessions_.end()) return oxutils::shared_ptr<TarnSession>();
  oxutils::shared_ptr<TarnSession> session = std::move(found->second);
  sessions_.erase(found);
  return session;
}

oxutils::shared_ptr<TarnSession> tarn_add_instance() {
  oxutils::shared_ptr<TarnSession> session = oxutils::make_shared<TarnSession>();
  TARN_LOG_INFO("tarn %p created", static_cast<void*>(session.get()));
  if (TarnRegistry::instance().add(session)) return session;
  // Its re-send timer is on the worker already: the session goes when the timer has gone.
  session->stop();
  session->keep_until_worker_has_run();
  return oxutils::shared_ptr<TarnSession>();
}

oxutils::shared_ptr<TarnSession> tarn_get_instance(void* handle) {
  return TarnRegistry::instance().get(handle);
}
