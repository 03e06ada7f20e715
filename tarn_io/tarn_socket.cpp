#include "tarn_io/tarn_socket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <utility>

#include "oxutils/assert.h"
#include "src/tarn_log.h"

namespace {

constexpr int kBacklog = 128;
constexpr uint16_t kProbePort = 65535;
constexpr uint32_t kProbeIpv4 = 0x08080808;
constexpr unsigned char kProbeIpv6FirstByte = 0x20;
// One after another that come faster than they can be read, before a read gives up.
constexpr int kMostErrors = 16;

bool is_known(TarnSocket::AddrFamily af) {
  return af == TarnSocket::IPV4 || af == TarnSocket::IPV6;
}

socklen_t address_size(TarnSocket::AddrFamily af) {
  return af == TarnSocket::IPV6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

TarnSocket::AddrFamily reachable_family() {
  return TarnSocket::ip_v6_only() ? TarnSocket::IPV6 : TarnSocket::IPV4;
}

}  // namespace

TarnSocket::TarnSocket(Protocol p) : fd_(-1), af_(reachable_family()), protocol_(p) {
  fd_ = create_socket(af_, p);
}

TarnSocket::TarnSocket(int fd) : TarnSocket(fd, UDP) {}

TarnSocket::TarnSocket(int fd, Protocol p) : fd_(fd), protocol_(p) {}

int TarnSocket::create_socket(AddrFamily af, Protocol p) {
  int fd = 0;
  const int domain = af == IPV4 ? AF_INET : AF_INET6;
  if (is_known(af) && p == UDP) fd = socket(domain, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  if (is_known(af) && p == TCP) fd = socket(domain, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  TARN_LOG_VERBOSE("create socket fd %d af %d protocol %d", fd, af, p);
  return fd;
}

bool TarnSocket::ip_v6_only() { return !has_ip_v4() && has_ip_v6(); }

bool TarnSocket::has_ip_v4() {
  Address probed = {};
  probed.v4.sin_family = AF_INET;
  probed.v4.sin_port = htons(kProbePort);
  probed.v4.sin_addr.s_addr = htonl(kProbeIpv4);
  const bool found = ip_stack_check_connect(AF_INET, &probed.any, sizeof probed.v4);
  TARN_LOG_VERBOSE("chenck ipv4 %d", found ? 1 : 0);
  return found;
}

bool TarnSocket::has_ip_v6() {
  Address probed;
  probed.v6 = {};
  probed.v6.sin6_family = AF_INET6;
  probed.v6.sin6_port = htons(kProbePort);
  probed.v6.sin6_addr.s6_addr[0] = kProbeIpv6FirstByte;
  const bool found = ip_stack_check_connect(AF_INET6, &probed.any, sizeof probed.v6);
  TARN_LOG_VERBOSE("chenck ipv6 %d", found ? 1 : 0);
  return found;
}

bool TarnSocket::ip_stack_check_connect(int domain, sockaddr* addr, size_t len) {
  const int fd = socket(domain, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  if (fd < 0) return false;
  int result = 0;
  do {
    result = ::connect(fd, addr, static_cast<socklen_t>(len));
  } while (result < 0 && errno == EINTR);
  ::close(fd);
  return result == 0;
}

int TarnSocket::last_error() { return errno; }

bool TarnSocket::was_pending(int error) {
  return error != EAGAIN && error != EINTR && error != EBADF;
}

bool TarnSocket::connect(const char* ip, short port) {
  TarnAddr addr(ip, static_cast<uint16_t>(port));
  return connect(addr);
}

bool TarnSocket::connect(TarnAddr& addr) {
  Address to;
  return fill(addr, to) && ::connect(fd_, &to.any, address_size(af_)) == 0;
}

bool TarnSocket::fill(const TarnAddr& addr, Address& out) const {
  if (af_ == IPV6) return addr.get_sock_addr_v6(out.v6);
  return af_ == IPV4 && addr.get_sock_addr_v4(out.v4);
}

void TarnSocket::read_only_from(const TarnAddr& peer) { has_peer_ = fill(peer, peer_); }

bool TarnSocket::is_peer(const Address& source) const {
  if (source.any.sa_family != peer_.any.sa_family) return false;
  if (af_ == IPV6) {
    return source.v6.sin6_port == peer_.v6.sin6_port &&
           IN6_ARE_ADDR_EQUAL(&source.v6.sin6_addr, &peer_.v6.sin6_addr);
  }
  return source.v4.sin_port == peer_.v4.sin_port &&
         source.v4.sin_addr.s_addr == peer_.v4.sin_addr.s_addr;
}

bool TarnSocket::bind(uint16_t port) {
  Address local = {};
  if (af_ == IPV4) {
    local.v4.sin_family = AF_INET;
    local.v4.sin_addr.s_addr = htonl(INADDR_ANY);
    local.v4.sin_port = htons(port);
  } else if (af_ == IPV6) {
    local.v6 = {};
    local.v6.sin6_family = AF_INET6;
    local.v6.sin6_addr = in6addr_any;
    local.v6.sin6_port = htons(port);
  } else {
    return false;
  }
  if (::bind(fd_, &local.any, address_size(af_)) == 0) return true;
  TARN_LOG_ERROR("fd %d bind port %u failed error %d", fd_, port, last_error());
  return false;
}

bool TarnSocket::listen() {
  if (::listen(fd_, kBacklog) == 0) return true;
  TARN_LOG_ERROR("fd %d listen failed error %d", fd_, last_error());
  return false;
}

TarnSocket TarnSocket::accept() {
  if (!is_known(af_)) OX_ASSERT("tarn_io/tarn_socket", __LINE__, false);
  Address from;
  socklen_t size = address_size(af_);
  const int fd = ::accept4(fd_, &from.any, &size, SOCK_CLOEXEC);
  if (fd < 0) TARN_LOG_ERROR("fd %d accept failed error %d", fd_, last_error());
  return TarnSocket(fd, TCP);
}

bool TarnSocket::async() {
  const int flags = fcntl(fd_, F_GETFL, 0);
  return fcntl(fd_, F_SETFL, flags | O_NONBLOCK) != -1;
}

bool TarnSocket::reuse() {
  const int32_t on = 1;
  return setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0;
}

void TarnSocket::close() {
  TARN_LOG_VERBOSE("close socket %d", fd_);
  if (fd_ >= 1) ::close(fd_);
  fd_ = -1;
}

TarnSocket TarnSocket::release() {
  kept_error_ = 0;
  return TarnSocket(std::exchange(fd_, -1), protocol_);
}

int TarnSocket::readable_len() {
  if (protocol_ == TCP) return static_cast<int>(buffer_.readable_bytes());
  int size = 0;
  return ioctl(fd_, FIONREAD, &size) == 0 ? size : 0;
}

int TarnSocket::read(char* buf, int len) {
  OX_ASSERT("tarn_io/tarn_socket", __LINE__, protocol_ == UDP);
  return kept_error_ != 0 ? fail_with_kept_error() : receive(buf, len);
}

int TarnSocket::fail_with_kept_error() {
  errno = std::exchange(kept_error_, 0);
  return -1;
}

int TarnSocket::read_on(char* buf, int len) {
  int result = -1;
  for (int i = 0; i < kMostErrors && result < 0 && was_pending(errno); ++i) {
    kept_error_ = errno;
    result = receive(buf, len);
  }
  return result;
}

int TarnSocket::receive(char* buf, int len) const {
  return has_peer_ ? receive_from_peer(buf, len)
                   : static_cast<int>(recv(fd_, buf, static_cast<size_t>(len), 0));
}

// What others have sent is left out.
int TarnSocket::receive_from_peer(char* buf, int len) const {
  for (;;) {
    Address source;
    const int result = receive_from(buf, len, 0, source);
    if (result < 0 || is_peer(source)) return result;
  }
}

int TarnSocket::receive_from(char* buf, int len, int flags, Address& source) const {
  source = {};
  socklen_t size = address_size(af_);
  return static_cast<int>(recvfrom(fd_, buf, static_cast<size_t>(len), flags, &source.any, &size));
}

// Without any, somebody's send or receive may have taken it since it showed. One that comes between
// the two looks is taken too; one that is left then is told by a queue of errors, which stays until
// the application reads that.
bool TarnSocket::keep_error() {
  int error = take_error();
  if (error == 0 && condition() != 0) {
    error = take_error();
    if (error == 0) return false;
  }
  if (error != 0) kept_error_ = error;
  return true;
}

int TarnSocket::take_error() const {
  int error = 0;
  socklen_t size = sizeof error;
  return getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : 0;
}

short TarnSocket::condition() const {
  pollfd asked = {fd_, 0, 0};
  int result = 0;
  do {
    result = poll(&asked, 1, 0);
  } while (result < 0 && errno == EINTR);
  return asked.revents;
}

char* TarnSocket::peek() {
  OX_ASSERT("tarn_io/tarn_socket", __LINE__, protocol_ == TCP);
  return buffer_.hold();
}

void TarnSocket::consume(int len) {
  OX_ASSERT("tarn_io/tarn_socket", __LINE__, protocol_ == TCP);
  buffer_.retrieve(static_cast<size_t>(len));
}

int TarnSocket::read_all() {
  OX_ASSERT("tarn_io/tarn_socket", __LINE__, protocol_ == TCP);
  int error = 0;
  return buffer_.read_fd(fd_, &error);
}

int TarnSocket::readfrom(char* buf, int len, TarnAddr& from) {
  if (!is_known(af_)) OX_ASSERT("tarn_io/tarn_socket", __LINE__, false);
  Address source;
  const int result = receive_from(buf, len, 0, source);
  from = TarnAddr(&source.any);
  return result;
}

bool TarnSocket::try_readfrom(char* buf, int len, TarnAddr& from) {
  Address source;
  if (receive_from(buf, len, MSG_DONTWAIT, source) < 0) return false;
  from = TarnAddr(&source.any);
  return true;
}

int TarnSocket::send(const char* buf, size_t len) {
  const int result = try_send(buf, len);
  if (result < 0) log_send_failure(fd_, last_error());
  return result;
}

int TarnSocket::try_send(const char* buf, size_t len) {
  if (kept_error_ != 0) return fail_with_kept_error();
  return static_cast<int>(::send(fd_, buf, len, MSG_NOSIGNAL));
}

void TarnSocket::log_send_failure(int fd, int error) {
  TARN_LOG_ERROR("fd %d send failed error = %d", fd, error);
}
