#include "tarn_io/udp_listener.h"

UdpListener::UdpListener() : TarnListener(TarnSocket(TarnSocket::UDP)) {
  watch(oxutils::Function(this, &UdpListener::on_read));
}

void UdpListener::on_read() {
  if (!has_begun()) return;
  // The callback may stop this listener.
  const oxutils::shared_ptr<TarnListener> hold = weak_this_.lock();
  char datagram[TarnSocket::kMaxDatagram];
  TarnAddr peer;
  // A damaged datagram wakes without being there.
  if (sock_.try_readfrom(datagram, TarnSocket::kMaxDatagram, peer)) accept_peer(peer);
}

void UdpListener::accept_peer(TarnAddr& peer) {
  TarnSocket socket(TarnSocket::UDP);
  socket.reuse();
  socket.async();
  socket.bind(port_);
  // An address that was too long to be kept is nobody's.
  if (!peer.get_ip().empty() && socket.connect(peer)) {
    // What came before may be anybody's; others send again, and reach the listener.
    socket.read_only_from(peer);
  } else {
    // Unconnected it would take the other peers' datagrams.
    socket.close();
  }
  hand_over(socket);
}
