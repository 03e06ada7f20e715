// The registry: which handles are live sessions.
#ifndef TARN_SRC_TARN_REGISTRY_H_
#define TARN_SRC_TARN_REGISTRY_H_

#include <unordered_map>

#include "oxutils/mutex.h"
#include "oxutils/smart_ptr/shared_ptr.h"
#include "src/tarn_session.h"

// Maps handles, the sessions' own addresses, to the sessions. Any thread; lock_ guards the map and
// is held for the map alone. Lives for ever, since the worker may release sessions until the
// process is gone.
class TarnRegistry {
 public:
  static TarnRegistry& instance();

  // False when the session's address is a handle already.
  bool add(const oxutils::shared_ptr<TarnSession>& session) OX_EXCLUDES(lock_);
  // A counted reference, or nothing for a handle that is not registered.
  oxutils::shared_ptr<TarnSession> get(void* handle) const OX_EXCLUDES(lock_);
  // The registry's own reference, or nothing.
  oxutils::shared_ptr<TarnSession> remove(void* handle) OX_EXCLUDES(lock_);

 private:
  mutable oxutils::mutex lock_;
  std::unordered_map<void*, oxutils::shared_ptr<TarnSession>> sessions_ OX_GUARDED_BY(lock_);
};

// Makes and registers a session that has not been started. Empty if its address was taken.
oxutils::shared_ptr<TarnSession> tarn_add_instance();

// Every session call begins with this and holds the reference until it returns.
oxutils::shared_ptr<TarnSession> tarn_get_instance(void* handle);

// Clears the session's callbacks and drops the registry's reference. Worker only.
void tarn_del_instance(void* handle);

// Has the worker call tarn_del_instance, after whatever was handed to it before.
void tarn_destroy_later(void* handle);

#endif  // TARN_SRC_TARN_REGISTRY_H_
