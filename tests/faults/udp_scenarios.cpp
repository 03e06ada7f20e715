// Scenarios with UDP handles.
#include <atomic>
#include <thread>

#include "tarn/io.h"
#include "tests/faults/play.h"
#include "tests/support/kept.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

namespace tarn_test {
namespace {

Endpoint& endpoint() { return kept<Endpoint>(); }
EventCounter& counter() { return kept<EventCounter>(); }

// Uses a handle with a peer of the system's making on every call that there is for it.
void use_handle(const Play& play, void* io, const PlainSocket& peer) {
  EventCounter& events = counter();
  char buffer[16] = {};
  unsigned short from = 0;
  // Written again until it comes, as by any application on a datagram socket.
  play.reach("a datagram at the peer", [&] {
    tarn_write(io, "ping", 4);
    return peer.receive_from(from, 1) == "ping";
  });
  tarn_set_io_error_callback(io, EventCounter::on_error, &events);
  tarn_set_writeable_callback(io, EventCounter::on_event, &events);
  play.reach("a writeable event", [&] { return events.count() > 0; });
  EventCounter& readable = counter();
  tarn_set_readable_callback(io, EventCounter::on_event, &readable);
  if (from != 0) {
    EXPECT_TRUE(peer.send_to(from, "pong"));
    play.reach("a readable event", [&] { return readable.count() > 0; });
    tarn_peek_size(io);
    play.reach("a datagram", [&] { return tarn_read(io, buffer, sizeof buffer) == 4; });
  }
  tarn_destroy_io(io);
  EXPECT_EQ(tarn_write(io, "late", 4), -1);
}

void udp_handle(const Play& play) {
  tarn_init();
  const PlainSocket peer = PlainSocket::udp();
  use_handle(play, tarn_create_udp_io(kLoopback, peer.port(), free_port()), peer);
}

void handle_from_descriptor(const Play& play) {
  tarn_init();
  const PlainSocket peer = PlainSocket::udp();
  PlainSocket given = PlainSocket::udp();
  given.connect(peer.port());
  use_handle(play, tarn_create_io_from_fd(given.release()), peer);
}

void attached_pair(const Play& play) {
  tarn_init();
  const unsigned short ports[] = {free_port(), free_port()};
  Endpoint& a = endpoint();
  Endpoint& b = endpoint();
  void* const a_io = tarn_create_udp_io(kLoopback, ports[1], ports[0]);
  void* const b_io = tarn_create_udp_io(kLoopback, ports[0], ports[1]);
  tarn_attach_io(a.handle(), a_io);
  tarn_attach_io(b.handle(), b_io);
  const Bytes message = pattern(3000, 5);

  a.send(message);
  b.send(message);

  play.reach("messages both ways",
             [&] { return a.reliable_received.count() == 1 && b.reliable_received.count() == 1; });
  for (const Endpoint* each : {&a, &b}) {
    for (const Bytes& received : each->reliable_received.all()) EXPECT_EQ(received, message);
  }
  tarn_destroy(a.handle());
  tarn_destroy(b.handle());
  tarn_destroy_io(a_io);
  tarn_destroy_io(b_io);
}

// Destroys the handle that it is told of, inside its callback.
struct Suicidal {
  static void on_readable(void* self) {
    auto* const object = static_cast<Suicidal*>(self);
    tarn_destroy_io(object->io);
    object->done = true;
  }
  void* io = nullptr;
  std::atomic<bool> done{false};
};

// Functions are handed over by several threads at once while the I/O thread is at work.
void handed_over_by_many(const Play& play) {
  tarn_init();
  const PlainSocket peer = PlainSocket::udp();
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&peer] {
      void* const io = tarn_create_udp_io(kLoopback, peer.port(), 0);
      EventCounter& events = counter();
      tarn_set_writeable_callback(io, EventCounter::on_event, &events);
      tarn_set_readable_callback(io, EventCounter::on_event, &events);
      tarn_destroy_io(io);
    });
  }
  for (std::thread& each : threads) each.join();

  auto& suicidal = kept<Suicidal>();
  const unsigned short port = free_port();
  suicidal.io = tarn_create_udp_io(kLoopback, peer.port(), port);
  tarn_set_readable_callback(suicidal.io, Suicidal::on_readable, &suicidal);
  play.reach("the end inside a callback",
             [&] { return !peer.send_to(port, "x") || suicidal.done.load(); });
  tarn_destroy_io(suicidal.io);
}

// So many handles that the I/O thread does not poll them one by one.
void crowd_of_handles(const Play& play) {
  tarn_init();
  const PlainSocket peer = PlainSocket::udp();
  std::vector<void*> ios;
  EventCounter& readable = counter();
  for (int i = 0; i < 40; ++i) {
    ios.push_back(tarn_create_udp_io(kLoopback, peer.port(), 0));
    tarn_set_readable_callback(ios.back(), EventCounter::on_event, &readable);
  }
  play.reach("an answer to the last one", [&] {
    unsigned short from = 0;
    tarn_write(ios.back(), "ping", 4);
    if (peer.receive_from(from, 1) == "ping") peer.send_to(from, "pong");
    return readable.count() > 0;
  });
  for (void* const io : ios) tarn_destroy_io(io);
}

}  // namespace

const std::vector<Scenario>& udp_scenarios() {
  static const std::vector<Scenario> all{{"UdpHandle", udp_handle},
                                         {"HandleFromDescriptor", handle_from_descriptor},
                                         {"AttachedPair", attached_pair},
                                         {"HandedOverByMany", handed_over_by_many},
                                         {"CrowdOfHandles", crowd_of_handles}};
  return all;
}

}  // namespace tarn_test
