// Scenarios with listeners.
#include "tarn/io.h"
#include "tests/faults/play.h"
#include "tests/support/kept.h"
#include "tests/support/net_sockets.h"
#include "tests/support/plain_socket.h"

namespace tarn_test {
namespace {

// A listener does not start the I/O thread; a watched handle does.
void start_io_thread() {
  void* const io = tarn_create_udp_io(kLoopback, 9, 0);
  tarn_set_readable_callback(io, EventCounter::on_event, new EventCounter);
  tarn_destroy_io(io);
}

// A peer begins; the handle made for it hears its later datagrams and answers.
void udp_listener(const Play& play) {
  tarn_init();
  start_io_thread();
  auto& handles = kept<NewHandles>();
  const unsigned short port = free_port();
  void* const listener = tarn_start_listen_udp(port, NewHandles::on_new, &handles);
  const PlainSocket peer = PlainSocket::udp();

  play.reach("a peer that is answered", [&] {
    if (listener == nullptr) return false;
    for (int i = 0; i < 2; ++i) peer.send_to(port, "hello");
    for (void* const io : handles.all()) {
      char buffer[16];
      if (tarn_read(io, buffer, sizeof buffer) == 5) tarn_write(io, "answer", 6);
    }
    return peer.receive(1) == "answer";
  });
  tarn_stop_listen(listener);
  for (void* const io : handles.all()) tarn_destroy_io(io);
}

// Connects, and connects again when the connection is lost on the library's side.
void tcp_listener(const Play& play) {
  tarn_init();
  start_io_thread();
  auto& handles = kept<NewHandles>();
  const unsigned short port = free_port();
  void* const listener = tarn_start_listen_tcp(port, NewHandles::on_new, &handles);
  {
    const PlainSocket peer(connect_tcp(port).release());
    play.reach("a greeting by the library", [&] {
      for (void* const io : handles.all()) tarn_write(io, "x", 1);
      return peer.fd() >= 0 && !peer.receive(1).empty();
    });
  }
  tarn_stop_listen(listener);
  for (void* const io : handles.all()) tarn_destroy_io(io);
}

struct Stopping {
  static void on_new(void* io, void* object) {
    auto* const self = static_cast<Stopping*>(object);
    tarn_stop_listen(self->listener);
    NewHandles::on_new(io, &self->handles);
  }
  std::atomic<void*> listener{nullptr};
  NewHandles handles;
};

void listener_stopped_inside(const Play& play) {
  tarn_init();
  start_io_thread();
  auto& stopping = kept<Stopping>();
  const unsigned short port = free_port();
  stopping.listener = tarn_start_listen_tcp(port, Stopping::on_new, &stopping);
  {
    const OwnedFd peer = connect_tcp(port);
    play.reach("a peer", [&] { return stopping.handles.count() > 0; });
  }
  tarn_stop_listen(stopping.listener);
  for (void* const io : stopping.handles.all()) tarn_destroy_io(io);
}

}  // namespace

const std::vector<Scenario>& listener_scenarios() {
  static const std::vector<Scenario> all{{"UdpListener", udp_listener},
                                         {"TcpListener", tcp_listener},
                                         {"ListenerStoppedInside", listener_stopped_inside}};
  return all;
}

}  // namespace tarn_test
