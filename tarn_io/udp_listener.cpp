#include "tarn_io/udp_listener.h"

namespace {

// More than a receive buffer holds at the usual sizes; a peer that floods ends the draining.
constexpr int kMaxDrained = 4096;

}  // namespace

UdpListener::UdpListener() : TarnListener(TarnSocket(TarnSocket::UDP)) {
  watch(oxutils::Function(this, &UdpListener::on_read));
}

void UdpListener::on_read() {
  if (!has_begun()) return;
  // The callback may stop this listener.
  const oxutils::shared_ptr<TarnListener> hold = weak_this_.lock();
  // A damaged datagram wakes without being there.
  if (!sock_.has_datagram()) return;
  char datagram[TarnSocket::kMaxDatagram];
  TarnAddr peer;
  sock_.readfrom(datagram, TarnSocket::kMaxDatagram, peer);
  newcomers_.push_back(peer);
  while (!newcomers_.empty() && !is_stopped()) {
    TarnAddr next = newcomers_.front();
    newcomers_.pop_front();
    accept_peer(next);
  }
}

void UdpListener::accept_peer(TarnAddr& peer) {
  TarnSocket socket(TarnSocket::UDP);
  socket.reuse();
  socket.bind(port_);
  // An address that was too long to be kept is nobody's.
  if (!peer.get_ip().empty() && socket.connect(peer)) {
    socket.read_only_from(peer);
    drain(socket, peer);
  } else {
    // Unconnected it would take the other peers' datagrams.
    socket.close();
  }
  hand_over(socket);
}

// What came before the socket was connected may be anybody's: none of it may reach this peer's
// session. Other peers are served as if they had come to the listener.
void UdpListener::drain(TarnSocket& socket, const TarnAddr& peer) {
  char datagram[TarnSocket::kMaxDatagram];
  socket.async();
  for (int i = 0; i < kMaxDrained && socket.has_datagram(); ++i) {
    TarnAddr from;
    socket.readfrom(datagram, TarnSocket::kMaxDatagram, from);
    const bool is_peer = from.get_ip() == peer.get_ip() && from.get_port() == peer.get_port();
    if (!is_peer) newcomers_.push_back(from);
  }
}
