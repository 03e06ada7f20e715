// The library owns the sockets: a session is attached to an I/O handle, and datagrams flow by
// themselves. One end asks, the other one answers, each with a socket of its own on loopback.
#include <tarn/io.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <string>

namespace {

constexpr const char* kHost = "127.0.0.1";
constexpr unsigned short kAskerPort = 21701;
constexpr unsigned short kAnswererPort = 21702;

struct End {
  void* io;
  void* session;
};

End open_end(unsigned short peer_port, unsigned short local_port) {
  const End end = {tarn_create_udp_io(kHost, peer_port, local_port), tarn_create()};
  tarn_set_conv(end.session, 7);
  return end;
}

void close_end(const End& end) {
  tarn_wait_destroy(end.session, 1000);  // until what was sent is acknowledged
  tarn_destroy_io(end.io);
}

// Lives for ever: the I/O thread may still be in a callback when main() returns.
std::promise<std::string>& answer() {
  static auto& instance = *new std::promise<std::string>;
  return instance;
}

// Callbacks run on the I/O thread and may send.
int on_question(char* data, int len, void* session) {
  std::string reply = "you said: " + std::string(data, static_cast<size_t>(len));
  tarn_send_reliable(session, reply.data(), static_cast<int>(reply.size()));
  return 0;
}

int on_answer(char* data, int len, void*) {
  answer().set_value(std::string(data, static_cast<size_t>(len)));
  return 0;
}

}  // namespace

int main() {
  tarn_init();
  const End answerer = open_end(kAskerPort, kAnswererPort);
  const End asker = open_end(kAnswererPort, kAskerPort);
  // Callbacks first: from tarn_attach_io() on, datagrams come in.
  tarn_set_recv_reliable_callback(answerer.session, on_question, answerer.session);
  tarn_set_recv_reliable_callback(asker.session, on_answer, nullptr);
  tarn_attach_io(answerer.session, answerer.io);
  tarn_attach_io(asker.session, asker.io);

  char question[] = "is anybody there?";
  tarn_send_reliable(asker.session, question, sizeof question - 1);

  auto answered = answer().get_future();
  const bool came = answered.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
  std::puts(came ? answered.get().c_str() : "no answer");
  close_end(asker);
  close_end(answerer);
  return came ? 0 : 1;
}
