// UdpListener: tells UDP peers apart by giving each a socket of its own.
#ifndef TARN_TARN_IO_UDP_LISTENER_H_
#define TARN_TARN_IO_UDP_LISTENER_H_

#include "tarn_io/tarn_addr.h"
#include "tarn_io/tarn_listener.h"

// A peer's first datagram is consumed and delivered to nobody. A second socket on the same port is
// connected to the peer, so that the kernel delivers its later datagrams there. There is no table
// of peers: one whose datagrams reach the listener twice gets two handles.
class UdpListener : public TarnListener {
 public:
  UdpListener();
  ~UdpListener() override { stop(); }

  // I/O thread only: one datagram, one new peer.
  void on_read();

 private:
  void accept_peer(TarnAddr& peer);
};

#endif  // TARN_TARN_IO_UDP_LISTENER_H_
