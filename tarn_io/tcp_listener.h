// TcpListener: accepts TCP peers.
#ifndef TARN_TARN_IO_TCP_LISTENER_H_
#define TARN_TARN_IO_TCP_LISTENER_H_

#include "tarn_io/tarn_listener.h"

// One accept per readable event.
class TcpListener : public TarnListener {
 public:
  TcpListener();
  ~TcpListener() override { stop(); }

  // I/O thread only: one connection, one new peer.
  void on_read();
};

#endif  // TARN_TARN_IO_TCP_LISTENER_H_
