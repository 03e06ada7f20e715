// An echo service over TCP: a listener, and bytes taken from the handle's buffer with peek and
// consume. A client in the same process sends a line and reads it back.
#include <tarn/io.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <string>

namespace {

constexpr unsigned short kPort = 21704;
constexpr char kLine[] = "echo this";

// The server. Inside the callback, everything that came since the last one is in the buffer.
void echo(void* io) {
  const int size = tarn_peek_size(io);
  if (size == 0) {  // the end of the stream
    tarn_destroy_io(io);
    return;
  }
  // What the socket does not take stays in the buffer, and goes with what comes next. A service
  // that must not wait for that sets a writeable callback.
  const int written = tarn_write(io, tarn_peek(io), size);
  if (written > 0) tarn_consume(io, written);
}

void on_new_connection(void* io, void*) { tarn_set_readable_callback(io, echo, io); }

// Lives for ever: the I/O thread may still be in a callback when main() returns.
std::promise<std::string>& reply() {
  static auto& instance = *new std::promise<std::string>;
  return instance;
}

// The client. Writeable means connected.
void say(void* io) { tarn_write(io, kLine, sizeof kLine - 1); }

void hear(void* io) {
  const int size = tarn_peek_size(io);
  const int expected = static_cast<int>(sizeof kLine - 1);
  if (size < expected) return;  // the rest is on its way
  reply().set_value(std::string(tarn_peek(io), static_cast<size_t>(expected)));
  tarn_consume(io, size);
}

}  // namespace

int main() {
  tarn_init();
  void* const listener = tarn_start_listen_tcp(kPort, on_new_connection, nullptr);
  void* const client = tarn_create_tcp_io("127.0.0.1", kPort);
  tarn_set_readable_callback(client, hear, client);
  tarn_set_writeable_callback(client, say, client);

  auto heard = reply().get_future();
  const bool came = heard.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
  const std::string line = came ? heard.get() : "nothing";
  std::printf("came back: %s\n", line.c_str());
  tarn_destroy_io(client);
  tarn_stop_listen(listener);
  return line == kLine ? 0 : 1;
}
