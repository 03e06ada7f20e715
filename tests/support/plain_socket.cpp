#include "tests/support/plain_socket.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "tarn/io.h"
#include "tests/support/session_fixture.h"

namespace tarn_test {
namespace {

union Address {
  sockaddr any;
  sockaddr_in v4;
};

Address loopback(unsigned short port) {
  Address address = {};
  address.v4.sin_family = AF_INET;
  address.v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.v4.sin_port = htons(port);
  return address;
}

int bound_socket(int type, unsigned short port, int reuse = 0) {
  const int fd = socket(AF_INET, type, 0);
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
  const Address address = loopback(port);
  if (fd < 0 || bind(fd, &address.any, sizeof address.v4) != 0) {
    if (fd >= 0) ::close(fd);
    return -1;
  }
  return fd;
}

bool is_free(unsigned short port) {
  const PlainSocket udp(bound_socket(SOCK_DGRAM, port));
  const PlainSocket tcp(bound_socket(SOCK_STREAM, port));
  return udp.fd() >= 0 && tcp.fd() >= 0;
}

}  // namespace

PlainSocket::PlainSocket(PlainSocket&& other) noexcept : fd_(other.release()) {}

PlainSocket& PlainSocket::operator=(PlainSocket&& other) noexcept {
  close();
  fd_ = other.release();
  return *this;
}

PlainSocket PlainSocket::udp(unsigned short port) {
  return PlainSocket(bound_socket(SOCK_DGRAM, port));
}

PlainSocket PlainSocket::tcp_listener(unsigned short port) {
  const int fd = bound_socket(SOCK_STREAM, port, 1);
  EXPECT_EQ(::listen(fd, 128), 0);
  return PlainSocket(fd);
}

PlainSocket PlainSocket::tcp_connect(unsigned short port) {
  PlainSocket socket(::socket(AF_INET, SOCK_STREAM, 0));
  socket.connect(port);
  return socket;
}

PlainSocket PlainSocket::accept(int ms) {
  return PlainSocket(is_readable(ms) ? ::accept(fd_, nullptr, nullptr) : -1);
}

void PlainSocket::connect(unsigned short port) {
  const Address address = loopback(port);
  const timeval limit = {10, 0};
  setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  int result = -1;
  do {
    result = ::connect(fd_, &address.any, sizeof address.v4);
  } while (result != 0 && (errno == EINTR || errno == EALREADY));
  // One that a signal has interrupted goes on by itself.
  EXPECT_TRUE(result == 0 || errno == EISCONN) << strerror(errno);
}

bool PlainSocket::send(const std::string& bytes) const {
  return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(bytes.size());
}

bool PlainSocket::send_to(unsigned short port, const std::string& bytes) const {
  const Address address = loopback(port);
  return sendto(fd_, bytes.data(), bytes.size(), 0, &address.any, sizeof address.v4) ==
         static_cast<ssize_t>(bytes.size());
}

std::string PlainSocket::receive(int ms) const {
  unsigned short port = 0;
  return receive_from(port, ms);
}

std::string PlainSocket::receive_from(unsigned short& port, int ms) const {
  if (!is_readable(ms)) return "";
  std::string bytes(65536, '\0');
  Address from = {};
  socklen_t size = sizeof from.v4;
  const ssize_t count = recvfrom(fd_, &bytes[0], bytes.size(), 0, &from.any, &size);
  port = ntohs(from.v4.sin_port);
  bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
  return bytes;
}

bool PlainSocket::is_readable(int ms) const {
  pollfd watched = {fd_, POLLIN, 0};
  return ::poll(&watched, 1, ms) == 1;
}

void PlainSocket::reset() {
  const linger at_once = {1, 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  close();
}

void PlainSocket::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

int PlainSocket::release() { return std::exchange(fd_, -1); }

unsigned short PlainSocket::port() const {
  Address address = {};
  socklen_t size = sizeof address.v4;
  getsockname(fd_, &address.any, &size);
  return ntohs(address.v4.sin_port);
}

unsigned short free_port() {
  static unsigned next = static_cast<unsigned>(getpid()) * 31;
  for (int i = 0; i < 10000; ++i) {
    const auto port = static_cast<unsigned short>(10000 + next++ % 20000);
    if (is_free(port)) return port;
  }
  return 0;
}

int open_descriptors() {
  DIR* const directory = opendir("/proc/self/fd");
  int count = 0;
  while (readdir(directory) != nullptr) ++count;
  closedir(directory);
  return count - 3;  // ".", ".." and the directory itself
}

std::string file_of(int fd) {
  char name[256];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t len = readlink(link.c_str(), name, sizeof name);
  return std::string(name, static_cast<size_t>(std::max<ssize_t>(len, 0)));
}

double process_cpu_seconds() {
  timespec used;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

// Destroying a handle waits for the I/O thread three times, once per pass.
void io_thread_pass() { tarn_destroy_io(tarn_create_udp_io(kLoopback, 9, 0)); }

DescriptorShortage::DescriptorShortage() {
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit_ = limit.rlim_cur;
  // The lowest number that is free; not less, since poll() wants its count below the limit.
  const int lowest = dup(STDOUT_FILENO);
  close(lowest);
  limit.rlim_cur = static_cast<rlim_t>(lowest);
  setrlimit(RLIMIT_NOFILE, &limit);
}

DescriptorShortage::~DescriptorShortage() {
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit_;
  setrlimit(RLIMIT_NOFILE, &limit);
}

void EventCounter::on_event(void* counter) {
  auto* const self = static_cast<EventCounter*>(counter);
  {
    const std::lock_guard<std::mutex> lock(self->guard_);
    self->thread_ = std::this_thread::get_id();
  }
  ++self->count_;
}

void EventCounter::on_error(int error, void* counter) {
  static_cast<EventCounter*>(counter)->error_ = error;
  on_event(counter);
}

std::thread::id EventCounter::thread() const {
  const std::lock_guard<std::mutex> lock(guard_);
  return thread_;
}

bool EventCounter::wait_for(int count) const {
  return wait_until([&] { return count_ >= count; });
}

void NewHandles::on_new(void* io, void* handles) {
  auto* const self = static_cast<NewHandles*>(handles);
  const std::lock_guard<std::mutex> lock(self->guard_);
  self->handles_.push_back(io);
  self->thread_ = std::this_thread::get_id();
}

NewHandles::~NewHandles() {
  for (void* const io : all()) tarn_destroy_io(io);
}

std::vector<void*> NewHandles::all() const {
  const std::lock_guard<std::mutex> lock(guard_);
  return handles_;
}

bool NewHandles::wait_for(size_t count) const {
  return wait_until([&] { return this->count() >= count; });
}

std::thread::id NewHandles::thread() const {
  const std::lock_guard<std::mutex> lock(guard_);
  return thread_;
}

UdpPair::UdpPair() : io(tarn_create_udp_io(kLoopback, peer.port(), 0)) {
  tarn_write(io, "hello", 5);
  peer.receive_from(io_port);
}

UdpPair::~UdpPair() { tarn_destroy_io(io); }

// Events come from the I/O thread alone, so that it runs when one has come.
SocketFixture::SocketFixture() {
  tarn_init();
  EventCounter writeable;
  void* const io = tarn_create_udp_io(kLoopback, 9, 0);
  tarn_set_writeable_callback(io, EventCounter::on_event, &writeable);
  EXPECT_TRUE(writeable.wait_for(1));
  tarn_destroy_io(io);
}

}  // namespace tarn_test
