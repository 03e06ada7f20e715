// Many peers at once, and what is left when they have gone.
#include <sys/socket.h>

#include <memory>
#include <set>

#include "tarn/io.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

using Storm = SocketFixture;

// Reads whatever reaches each new UDP handle.
class UdpServer {
 public:
  UdpServer() : listener_(tarn_start_listen_udp(port, on_new, this)) {}
  ~UdpServer() { stop(); }
  UdpServer(const UdpServer&) = delete;
  UdpServer& operator=(const UdpServer&) = delete;

  void stop() {
    if (listener_ != nullptr) tarn_stop_listen(listener_);
    listener_ = nullptr;
    for (const auto& peer : peers_) tarn_destroy_io(peer->io);
  }
  // The senders, by what they wrote, that a handle has heard: more than one is a mix-up.
  std::vector<std::set<std::string>> heard() const {
    const std::lock_guard<std::mutex> lock(guard_);
    std::vector<std::set<std::string>> all;
    for (const auto& peer : peers_) all.push_back(peer->names);
    return all;
  }
  size_t names() const {
    std::set<std::string> all;
    for (const auto& each : heard()) all.insert(each.begin(), each.end());
    return all.size();
  }
  size_t handles() const {
    const std::lock_guard<std::mutex> lock(guard_);
    return peers_.size();
  }

  const unsigned short port = free_port();

 private:
  struct Peer {
    UdpServer* server;
    void* io;
    std::set<std::string> names;
  };

  static void on_new(void* io, void* server) {
    auto* const self = static_cast<UdpServer*>(server);
    Peer* const peer = new Peer{self, io, {}};
    {
      const std::lock_guard<std::mutex> lock(self->guard_);
      self->peers_.emplace_back(peer);
    }
    tarn_set_readable_callback(io, on_readable, peer);
  }
  static void on_readable(void* object) {
    auto* const peer = static_cast<Peer*>(object);
    char buffer[64];
    const int count = tarn_read(peer->io, buffer, sizeof buffer);
    const std::lock_guard<std::mutex> lock(peer->server->guard_);
    if (count > 0) peer->names.insert(std::string(buffer, static_cast<size_t>(count)));
  }

  mutable std::mutex guard_;
  std::vector<std::unique_ptr<Peer>> peers_;
  void* listener_;
};

std::vector<PlainSocket> udp_peers(size_t count) {
  std::vector<PlainSocket> peers;
  for (size_t i = 0; i < count; ++i) peers.push_back(PlainSocket::udp());
  return peers;
}

void send_names(const std::vector<PlainSocket>& peers, unsigned short port) {
  for (size_t i = 0; i < peers.size(); ++i) peers[i].send_to(port, "peer " + std::to_string(i));
}

}  // namespace

TEST_F(Storm, HundredsOfUdpPeersAtOnceAreKeptApart) {
  const std::vector<PlainSocket> peers = udp_peers(200);
  UdpServer server;

  EXPECT_TRUE(wait_until([&] {
    send_names(peers, server.port);
    return server.names() == peers.size();
  })) << server.names();

  for (const std::set<std::string>& names : server.heard()) EXPECT_LE(names.size(), 1u);
}

TEST_F(Storm, StoppingAUdpListenerWhilePeersStorm) {
  const std::vector<PlainSocket> peers = udp_peers(20);
  const int before = open_descriptors();
  for (int i = 0; i < 5; ++i) {
    UdpServer server;
    std::atomic<bool> done{false};
    std::thread storm([&] {
      while (!done) send_names(peers, server.port);
    });
    EXPECT_TRUE(wait_until([&] { return server.handles() > 0; }));

    server.stop();

    const size_t count = server.handles();
    io_thread_pass();
    EXPECT_EQ(server.handles(), count);
    done = true;
    storm.join();
  }
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Storm, HundredsOfTcpPeersAtOnceAreAllAccepted) {
  NewHandles handles;
  const unsigned short port = free_port();
  void* const listener = tarn_start_listen_tcp(port, NewHandles::on_new, &handles);
  std::vector<PlainSocket> peers;

  for (int i = 0; i < 300; ++i) {
    peers.push_back(PlainSocket::tcp_connect(port));
    ASSERT_FALSE(HasFailure()) << i;
    peers.back().send("x");
  }

  EXPECT_TRUE(handles.wait_for(300));
  tarn_stop_listen(listener);
}

TEST_F(Storm, ResetsOfTcpPeersHarmNothing) {
  NewHandles handles;
  const unsigned short port = free_port();
  void* const listener = tarn_start_listen_tcp(port, NewHandles::on_new, &handles);

  for (int i = 0; i < 300; ++i) {
    PlainSocket peer = PlainSocket::tcp_connect(port);
    ASSERT_FALSE(HasFailure()) << i;
    if (i % 2 == 0) peer.send("x");
    peer.reset();
  }

  ASSERT_TRUE(handles.wait_for(300));
  EventCounter events;
  for (void* const io : handles.all()) {
    tarn_set_readable_callback(io, EventCounter::on_event, &events);
    tarn_set_writeable_callback(io, EventCounter::on_event, &events);
    tarn_write(io, "x", 1);
  }
  io_thread_pass();
  const double before = process_cpu_seconds();
  EXPECT_FALSE(PlainSocket::udp().is_readable(300));
  EXPECT_LT(process_cpu_seconds() - before, 0.1);
  tarn_stop_listen(listener);
  for (void* const io : handles.all()) tarn_destroy_io(io);
}

TEST_F(Storm, StoppingATcpListenerWhilePeersConnect) {
  for (int i = 0; i < 20; ++i) {
    NewHandles handles;
    const unsigned short port = free_port();
    void* const listener = tarn_start_listen_tcp(port, NewHandles::on_new, &handles);
    const std::vector<PlainSocket> peers = [&] {
      std::vector<PlainSocket> all;
      for (int k = 0; k < 30; ++k) all.push_back(PlainSocket::tcp_connect(port));
      return all;
    }();

    tarn_stop_listen(listener);

    const size_t count = handles.count();
    io_thread_pass();
    ASSERT_EQ(handles.count(), count);
  }
}

TEST_F(Storm, CyclesOfListenersAndPeersLeaveNoDescriptorBehind) {
  const int before = open_descriptors();

  for (int i = 0; i < 200; ++i) {
    NewHandles handles;
    const unsigned short port = free_port();
    void* const listener = tarn_start_listen_tcp(port, NewHandles::on_new, &handles);
    const PlainSocket peer = PlainSocket::tcp_connect(port);
    ASSERT_TRUE(handles.wait_for(1));
    tarn_stop_listen(listener);
  }

  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Storm, OneUdpPeerThatFloodsDoesNotStarveTheOthers) {
  UdpServer server;
  const std::vector<PlainSocket> peers = udp_peers(2);
  const PlainSocket flooder = PlainSocket::udp();
  std::atomic<bool> done{false};
  std::thread flood([&] {
    while (!done) flooder.send_to(server.port, "flood");
  });

  EXPECT_TRUE(wait_until([&] {
    send_names(peers, server.port);
    return server.names() == 3;
  }));

  done = true;
  flood.join();
}
