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
constexpr char kNotAccepted[] = "wake up init fail -- on accept";

// A sockaddr that bind, getsockname and connect can share.
union LoopbackAddress {
  sockaddr any;
  sockaddr_in v4;
};

int open_socket() { return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP); }

}  // namespace

bool TarnWakeUp::init() {
  const char* const failure = open();
  log(failure);
  return failure == nullptr || failure == kNotAccepted;
}

void TarnWakeUp::log(const char* failure) {
  if (failure != nullptr) TARN_LOG_ERROR("%s", failure);
}

const char* TarnWakeUp::open() {
  if (is_open()) return nullptr;
  if (failed_listener_ >= 0) close(failed_listener_);
  close_sender();
  failed_listener_ = open_socket();
  const int sender = open_socket();
  int receiver = -1;
  const char* const failure = connect_pair(failed_listener_, sender, receiver);
  {
    // Not before: another thread's byte would meet a socket that is not connected yet.
    const oxutils::scoped_lock hold(lock_);
    send_fd_ = sender;
  }
  if (failure != nullptr) return failure;
  TarnPoller::instance()->watch_read(receiver, oxutils::Function(this, &TarnWakeUp::on_read));
  recv_fd_ = receiver;
  // The listener stays open for the life of the process.
  failed_listener_ = -1;
  return nullptr;
}

const char* TarnWakeUp::connect_pair(int listener, int sender, int& receiver) {
  LoopbackAddress address = {};
  address.v4.sin_family = AF_INET;
  address.v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address.v4;
  if (bind(listener, &address.any, size) != 0) return "wake up init fail -- on bind";
  if (listen(listener, kBacklog) != 0) return "wake up init fail -- on listen";
  if (getsockname(listener, &address.any, &size) != 0) {
    return "wake up init fail -- on getsockname";
  }
  if (connect(sender, &address.any, size) != 0) return "wake up init fail -- on connect";
  receiver = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  return receiver >= 0 ? nullptr : kNotAccepted;
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
