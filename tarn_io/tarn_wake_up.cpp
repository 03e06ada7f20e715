#include "tarn_io/tarn_wake_up.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "src/tarn_log.h"
#include "tarn_io/tarn_poller.h"

namespace {

constexpr int kBacklog = 128;

// A sockaddr that bind, getsockname and connect can share.
union LoopbackAddress {
  sockaddr any;
  sockaddr_in v4;
};

}  // namespace

bool TarnWakeUp::init() {
  const int listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  const int sender = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  const bool connected = connect_pair(listener, sender);
  {
    // Not before: another thread's byte would meet a socket that is not connected yet.
    const oxutils::scoped_lock hold(lock_);
    send_fd_ = sender;
  }
  if (is_open()) {
    // The listener stays open for the life of the process.
    TarnPoller::instance()->watch_read(recv_fd_, oxutils::Function(this, &TarnWakeUp::on_read));
  } else {
    failed_listener_ = listener;
  }
  return connected;
}

bool TarnWakeUp::retry() {
  if (failed_listener_ >= 0) close(failed_listener_);
  failed_listener_ = -1;
  close_sender();
  init();
  return is_open();
}

bool TarnWakeUp::connect_pair(int listener, int sender) {
  LoopbackAddress address = {};
  address.v4.sin_family = AF_INET;
  address.v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address.v4;
  if (bind(listener, &address.any, size) != 0) {
    TARN_LOG_ERROR("wake up init fail -- on bind");
    return false;
  }
  if (listen(listener, kBacklog) != 0) {
    TARN_LOG_ERROR("wake up init fail -- on listen");
    return false;
  }
  if (getsockname(listener, &address.any, &size) != 0) {
    TARN_LOG_ERROR("wake up init fail -- on getsockname");
    return false;
  }
  if (connect(sender, &address.any, size) != 0) {
    TARN_LOG_ERROR("wake up init fail -- on connect");
    return false;
  }
  recv_fd_ = accept(listener, nullptr, nullptr);  // is_open() says how this went
  if (recv_fd_ < 0) TARN_LOG_ERROR("wake up init fail -- on accept");
  return true;
}

void TarnWakeUp::on_read() {
  char byte = 0;
  const ssize_t count = recv(recv_fd_, &byte, sizeof byte, MSG_DONTWAIT);
  if (count > 0) return;
  // At the end of the stream errno is whatever it was before.
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  TARN_LOG_ERROR("TarnWakeUp recv error");
  fini();
  init();
}

int TarnWakeUp::wakeup() {
  const char byte = 1;
  const oxutils::scoped_lock hold(lock_);
  return static_cast<int>(send(send_fd_, &byte, sizeof byte, MSG_DONTWAIT | MSG_NOSIGNAL));
}

void TarnWakeUp::fini() {
  if (is_open()) TarnPoller::instance()->unwatch_read(recv_fd_);
  close_sender();
  if (recv_fd_ >= 0) close(recv_fd_);
  recv_fd_ = -1;
}

void TarnWakeUp::close_sender() {
  const oxutils::scoped_lock hold(lock_);
  if (send_fd_ >= 0) close(send_fd_);
  send_fd_ = -1;
}
