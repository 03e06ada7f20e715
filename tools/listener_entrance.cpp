#include "tools/listener_entrance.h"

#include <fmt/format.h>
#include <tarn/io.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "tools/attached_conversation.h"
#include "tools/stream_conversation.h"

namespace tarn_tool {
namespace {

// A free port, or the one asked for if it is free; 0 and `error` when it is not. A listener does
// not tell: one on a TCP port in use reports nobody, and two on a UDP port share its peers.
unsigned find_port(const PeerAddress& address, Transport transport, std::string& error) {
  const bool stream = transport == Transport::kStream;
  const int fd = ::socket(AF_INET, (stream ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
  const int on = 1;
  // Connections of the past may hold a TCP port, and do not matter.
  if (stream) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  const PeerAddress any = address.any_v4();
  sockaddr_storage storage = {};
  socklen_t length = sizeof(storage);
  const bool is_free = ::bind(fd, any.data(), any.size()) == 0 &&
                       getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &length) == 0;
  if (!is_free) error = fmt::format("cannot listen on {}: {}", any.text(), std::strerror(errno));
  ::close(fd);
  return is_free ? PeerAddress(storage, length).port() : 0;
}

// A listener alone does not set the library's I/O thread going; any handle that ends does.
void start_io_thread() { tarn_destroy_io(tarn_create_udp_io("127.0.0.1", 9, 0)); }

}  // namespace

std::unique_ptr<ListenerEntrance> ListenerEntrance::open(const PeerAddress& address,
                                                         const SessionSettings& settings,
                                                         std::string& error) {
  if (!address.is_any_v6()) {
    error = "--attach and --tcp listen on all addresses: give the port alone";
    return nullptr;
  }
  const unsigned port = find_port(address, settings.transport, error);
  if (port == 0) return nullptr;
  std::unique_ptr<ListenerEntrance> entrance(new ListenerEntrance(port, settings));
  if (entrance->start()) return entrance;
  error = fmt::format("cannot listen on port {}", port);
  return nullptr;
}

bool ListenerEntrance::start() {
  const auto port = static_cast<unsigned short>(port_);
  listener_ = settings_.transport == Transport::kStream
                  ? tarn_start_listen_tcp(port, on_new_peer, this)
                  : tarn_start_listen_udp(port, on_new_peer, this);
  if (listener_ != nullptr) start_io_thread();
  return listener_ != nullptr;
}

ListenerEntrance::~ListenerEntrance() {
  tarn_stop_listen(listener_);
  for (void* io : take_newcomers()) tarn_destroy_io(io);
}

// On the I/O thread. Until the main loop has taken the handle, its datagrams wait in the socket.
void ListenerEntrance::on_new_peer(void* io, void* self) {
  auto* const entrance = static_cast<ListenerEntrance*>(self);
  {
    const std::lock_guard<std::mutex> hold(entrance->lock_);
    entrance->newcomers_.push_back(io);
  }
  entrance->bell_.note_writeable();
}

std::vector<void*> ListenerEntrance::take_newcomers() {
  const std::lock_guard<std::mutex> hold(lock_);
  return std::exchange(newcomers_, {});
}

void ListenerEntrance::take_in() {
  bell_.take();
  for (void* io : take_newcomers()) {
    if (open_ >= kMaxConversations) {
      tarn_destroy_io(io);
      continue;
    }
    ++open_;
    admit(converse(io));
  }
}

std::unique_ptr<Conversation> ListenerEntrance::converse(void* io) {
  const std::string peer = fmt::format("sender {}", ++last_number_);
  if (settings_.transport == Transport::kStream) {
    return std::make_unique<StreamConversation>(io, peer, settings_);
  }
  // The conversation id comes with the peer's first datagram.
  return std::make_unique<AttachedConversation>(io, peer, 0, settings_);
}

}  // namespace tarn_tool
