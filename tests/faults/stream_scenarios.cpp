// Scenarios with TCP handles.
#include <mutex>
#include <string>

#include "tarn/io.h"
#include "tests/faults/play.h"
#include "tests/support/kept.h"
#include "tests/support/plain_socket.h"

namespace tarn_test {
namespace {

// Takes whatever the stream brings, inside the callback.
class Stream {
 public:
  explicit Stream(void* io) : io_(io) {}

  static void on_readable(void* stream) {
    auto* const self = static_cast<Stream*>(stream);
    const int size = tarn_peek_size(self->io_);
    const char* const bytes = tarn_peek(self->io_);
    const std::lock_guard<std::mutex> hold(self->guard_);
    if (size > 0) self->taken_.append(bytes, static_cast<size_t>(size));
    tarn_consume(self->io_, size);
  }

  std::string taken() const {
    const std::lock_guard<std::mutex> hold(guard_);
    return taken_;
  }

 private:
  void* const io_;
  mutable std::mutex guard_;
  std::string taken_;
};

void tcp_handle(const Play& play) {
  tarn_init();
  PlainSocket listener = PlainSocket::tcp_listener();
  void* const io = tarn_create_tcp_io(kLoopback, listener.port());
  auto& events = kept<EventCounter>();
  auto& stream = kept<Stream>(io);
  tarn_set_writeable_callback(io, EventCounter::on_event, &events);
  tarn_set_readable_callback(io, Stream::on_readable, &stream);
  PlainSocket peer = listener.accept(play.must_complete() ? 10000 : 100);
  if (peer.fd() >= 0) {
    play.reach("a writeable event", [&] { return events.count() > 0; });
    play.reach("the handle's bytes", [&] {
      tarn_write(io, "x", 1);
      return !peer.receive(1).empty();
    });
    const std::string bytes(5000, 'y');
    EXPECT_TRUE(peer.send(bytes));
    play.reach("the peer's bytes", [&] { return stream.taken() == bytes; });
    EXPECT_EQ(bytes.compare(0, stream.taken().size(), stream.taken()), 0);
    peer.close();
  }
  tarn_destroy_io(io);
}

}  // namespace

const std::vector<Scenario>& stream_scenarios() {
  static const std::vector<Scenario> all{{"TcpHandle", tcp_handle}};
  return all;
}

}  // namespace tarn_test
