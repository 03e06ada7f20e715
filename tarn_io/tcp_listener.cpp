#include "tarn_io/tcp_listener.h"

#include "tarn_io/tarn_poller.h"

namespace {

// ms; while descriptors are short a waiting connection keeps the listener readable
constexpr int kPauseAfterFailure = 100;

}  // namespace

TcpListener::TcpListener() : TarnListener(TarnSocket(TarnSocket::TCP)) {
  watch(oxutils::Function(this, &TcpListener::on_read));
}

void TcpListener::on_read() {
  if (!has_begun()) return;
  // The callback may stop this listener.
  const oxutils::shared_ptr<TarnListener> hold = weak_this_.lock();
  const TarnSocket peer = sock_.accept();
  if (peer.fd() < 0) TarnPoller::instance()->pause(sock_.fd(), kPauseAfterFailure);
  hand_over(peer);
}
