// A chat room on a UDP port: a listener, a session for each peer, and every line goes to everybody.
// Two guests in the same process come by, each on a socket of its own.
#include <tarn/io.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <list>
#include <mutex>
#include <string>

namespace {
constexpr unsigned short kPort = 21703;

void send_line(void* session, std::string line) {
  tarn_send_reliable(session, line.data(), static_cast<int>(line.size()));
}

// Only the I/O thread works in the room, so it needs no lock.
using Room = std::list<void*>;
int on_line(char* data, int len, void* room) {
  const std::string line(data, static_cast<size_t>(len));
  for (void* session : *static_cast<Room*>(room)) send_line(session, line);
  return 0;
}

// The datagram that made the listener notice the peer is gone; the peer's session sends it again.
void on_new_peer(void* io, void* room) {
  void* const session = tarn_create();
  static_cast<Room*>(room)->push_back(session);
  tarn_set_recv_reliable_callback(session, on_line, room);
  tarn_attach_io(session, io);
}

// The server's session takes over the conversation id that its guest brings.
struct Guest {
  Guest(const char* given_name, unsigned conv) : name(given_name) {
    tarn_set_conv(session, conv);
    tarn_set_recv_reliable_callback(session, hear, this);
    tarn_attach_io(session, io);
  }
  static int hear(char* data, int len, void* self) {
    Guest& guest = *static_cast<Guest*>(self);
    const std::lock_guard<std::mutex> hold(guest.lock);
    guest.heard.assign(data, static_cast<size_t>(len));
    std::printf("%s hears: %s\n", guest.name, guest.heard.c_str());
    guest.news.notify_all();
    return 0;
  }
  bool wait_for(const std::string& line) {
    std::unique_lock<std::mutex> hold(lock);
    return news.wait_for(hold, std::chrono::seconds(5), [&] { return heard == line; });
  }

  const char* const name;
  void* const io = tarn_create_udp_io("127.0.0.1", kPort, 0);
  void* const session = tarn_create();
  std::mutex lock;
  std::condition_variable news;
  std::string heard;  // last, guarded by lock
};

}  // namespace

int main() {
  tarn_init();
  void* const listener = tarn_start_listen_udp(kPort, on_new_peer, new Room);
  if (listener == nullptr) return 1;
  Guest& ann = *new Guest("ann", 1);  // guests live as long as their callbacks: for ever
  send_line(ann.session, "ann is here");
  bool good = ann.wait_for("ann is here");
  Guest& bob = *new Guest("bob", 2);
  send_line(bob.session, "bob is here");
  good = good && ann.wait_for("bob is here") && bob.wait_for("bob is here");
  send_line(ann.session, "hello bob");
  good = good && bob.wait_for("hello bob");
  tarn_stop_listen(listener);
  return good ? 0 : 1;
}
