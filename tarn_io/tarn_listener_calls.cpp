// The exported calls on listeners.
#include <unistd.h>

#include "src/handle_registry.h"
#include "src/tarn_log.h"
#include "tarn/io.h"
#include "tarn_io/tcp_listener.h"
#include "tarn_io/udp_listener.h"

namespace {

using ListenerPtr = oxutils::shared_ptr<TarnListener>;

constexpr unsigned int kUdpStartDelayUs = 100'000;

// Never destroyed: listeners may be stopped until the process is gone.
HandleRegistry<TarnListener>& listeners() {
  static HandleRegistry<TarnListener>& registry = *new HandleRegistry<TarnListener>;
  return registry;
}

// Owned as its base, so that the base's reference to itself is filled.
void* register_listener(const ListenerPtr& listener) {
  listeners().add(listener.get(), listener);
  return listener.get();
}

}  // namespace

void* tarn_start_listen_udp(unsigned short port, TarnNewConnCallback callback, void* arg) {
  const ListenerPtr listener(new UdpListener);
  listener->set_new_conn_callback(callback, arg);
  if (!listener->listen(port)) {
    listener->stop();
    return nullptr;
  }
  void* const handle = register_listener(listener);
  usleep(kUdpStartDelayUs);
  return handle;
}

void* tarn_start_listen_tcp(unsigned short port, TarnNewConnCallback callback, void* arg) {
  const ListenerPtr listener(new TcpListener);
  listener->set_new_conn_callback(callback, arg);
  listener->listen(port);
  return register_listener(listener);
}

void tarn_stop_listen(void* listener) {
  if (listener == nullptr) return;
  const ListenerPtr stopped = listeners().remove(listener);
  if (!stopped) {
    TARN_LOG_WARN("tarn_stop_listen fail,bad listener %p", listener);
    return;
  }
  stopped->stop();
}
