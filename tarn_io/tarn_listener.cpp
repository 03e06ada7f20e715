#include "tarn_io/tarn_listener.h"

#include "tarn_io/tarn_io_registry.h"
#include "tarn_io/tarn_io_thread.h"
#include "tarn_io/tarn_poller.h"

namespace {

void nothing() {}

}  // namespace

bool TarnListener::listen(unsigned short port) {
  sock_.reuse();
  sock_.async();
  if (!sock_.bind(port)) return false;
  if (sock_.protocol() == TarnSocket::TCP && !sock_.listen()) return false;
  port_ = port;
  return true;
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
  const auto callback = new_conn_cb_.get();
  if (callback.function == nullptr) {
    TarnSocket(peer).close();
    return;
  }
  callback.function(tarn_add_io(peer).get(), callback.user);
}
