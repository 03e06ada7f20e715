#include "tarn_io/tarn_listener.h"

#include <utility>

#include "tarn_io/tarn_io_registry.h"
#include "tarn_io/tarn_io_thread.h"
#include "tarn_io/tarn_poller.h"

namespace {

void nothing() {}

}  // namespace

bool TarnListener::listen(unsigned short port) {
  sock_.reuse();
  sock_.async();
  // First: a peer may be there as soon as the port is bound.
  port_ = port;
  {
    const oxutils::scoped_lock hold(lock_);
    begun_ = true;
  }
  if (sock_.bind(port) && (sock_.protocol() != TarnSocket::TCP || sock_.listen())) {
    // A TCP socket that does not listen yet looks hung up, and may have been left out for that.
    TarnPoller::instance()->resume(sock_.fd());
    return true;
  }
  port_ = 0;
  return false;
}

bool TarnListener::has_begun() const {
  const oxutils::scoped_lock hold(lock_);
  return begun_;
}

void TarnListener::set_new_conn_callback(NewConnCallback callback, void* arg) {
  const oxutils::scoped_lock hold(lock_);
  new_conn_cb_ = callback;
  new_conn_arg_ = arg;
}

void TarnListener::watch(oxutils::Function on_read) {
  if (!is_stopped()) TarnPoller::instance()->watch_read(sock_.fd(), std::move(on_read));
}

void TarnListener::stop() {
  if (is_stopped()) return;
  TarnPoller::instance()->unwatch_read(sock_.fd());
  // Without the thread nothing can be under way; and it is not started for this.
  if (TarnIoThread* const thread = TarnIoThread::existing()) {
    thread->wait(oxutils::Function(&nothing));
  }
  sock_.close();
}

void TarnListener::hand_over(const TarnSocket& peer) {
  NewConnCallback callback = nullptr;
  void* arg = nullptr;
  {
    const oxutils::scoped_lock hold(lock_);
    callback = new_conn_cb_;
    arg = new_conn_arg_;
  }
  if (callback != nullptr) {
    callback(tarn_add_io(peer).get(), arg);
  } else {
    TarnSocket(peer).close();
  }
}
