// The registry of sessions.
#ifndef TARN_SRC_TARN_REGISTRY_H_
#define TARN_SRC_TARN_REGISTRY_H_

#include "oxutils/smart_ptr/shared_ptr.h"
#include "src/handle_registry.h"
#include "src/tarn_session.h"

// The sessions by their own addresses, which are the handles. Never destroyed, since the worker may
// release sessions until the process is gone.
HandleRegistry<TarnSession>& tarn_sessions();

// Makes and registers a session that has not been started. Empty if its address was taken.
oxutils::shared_ptr<TarnSession> tarn_add_instance();

// Drops a session that nobody got. Its timers are on the worker already: it goes when they have
// gone.
void tarn_give_up(oxutils::shared_ptr<TarnSession> session);

// A reference for what goes on beyond a call; calls hold the session by tarn_sessions().hold().
oxutils::shared_ptr<TarnSession> tarn_get_instance(void* handle);

// What tarn_input() does once it has found the session, which the caller holds.
void tarn_input_held(TarnSession& session, char* data, int len);

// Clears the session's callbacks and drops the registry's reference. Worker only.
void tarn_del_instance(void* handle);

// Has the worker call tarn_del_instance, after whatever was handed to it before. For a handle that
// is not registered now it only logs what that would log: by then the handle may be another's.
void tarn_destroy_later(void* handle);

#endif  // TARN_SRC_TARN_REGISTRY_H_
