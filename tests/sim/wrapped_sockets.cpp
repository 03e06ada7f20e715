// Stand-ins for the system's socket calls. The linker puts them in everybody's way (--wrap): real
// descriptors, and all calls outside a simulated run, go on to the system.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstdarg>
#include <cstring>

#include "tarn_io/tarn_socket.h"
#include "tests/sim/boundary.h"
#include "tests/sim/fake_network.h"
#include "tests/sim/real_calls.h"
#include "tests/sim/world.h"

using tarn_sim::FakeNetwork;
using tarn_sim::OutsideLibrary;
using tarn_sim::Scheduler;
using tarn_sim::World;

namespace {

bool is_simulated() { return Scheduler::running() != nullptr; }
bool is_simulated(int fd) {
  return (fd < 0 || fd >= FakeNetwork::kFirstDescriptor) && is_simulated();
}

// For the calls that take none.
constexpr int kNoDescriptor = 0;

// Another task may go on before the call.
template <typename Call>
auto simulate(int fd, Call call) {
  const auto result = [&]() -> decltype(call(World::get().network())) {
    const OutsideLibrary outside;
    World::get().scheduler().point();
    if (fd < 0) return -EBADF;
    return call(World::get().network());
  }();
  if (result >= 0) return result;
  errno = static_cast<int>(-result);
  return decltype(result){-1};
}

}  // namespace

extern "C" {

int __wrap_socket(int domain, int type, int protocol) {
  if (!is_simulated()) return __real_socket(domain, type, protocol);
  return simulate(kNoDescriptor,
                  [=](FakeNetwork& network) { return network.socket(domain, type); });
}

int __wrap_close(int fd) {
  if (!is_simulated(fd)) return __real_close(fd);
  return simulate(fd, [=](FakeNetwork& network) { return network.close(fd); });
}

int __wrap_bind(int fd, const sockaddr* address, socklen_t size) {
  if (!is_simulated(fd)) return __real_bind(fd, address, size);
  return simulate(fd, [=](FakeNetwork& network) { return network.bind(fd, address); });
}

int __wrap_connect(int fd, const sockaddr* address, socklen_t size) {
  if (!is_simulated(fd)) return __real_connect(fd, address, size);
  return simulate(fd, [=](FakeNetwork& network) { return network.connect(fd, address); });
}

int __wrap_listen(int fd, int backlog) {
  if (!is_simulated(fd)) return __real_listen(fd, backlog);
  return simulate(fd, [=](FakeNetwork& network) { return network.listen(fd); });
}

int __wrap_accept(int fd, sockaddr* address, socklen_t* size) {
  if (!is_simulated(fd)) return __real_accept(fd, address, size);
  return simulate(fd, [=](FakeNetwork& network) { return network.accept(fd, address, size); });
}

int __wrap_accept4(int fd, sockaddr* address, socklen_t* size, int flags) {
  if (!is_simulated(fd)) return __real_accept4(fd, address, size, flags);
  return simulate(fd, [=](FakeNetwork& network) { return network.accept(fd, address, size); });
}

int __wrap_getsockname(int fd, sockaddr* address, socklen_t* size) {
  if (!is_simulated(fd)) return __real_getsockname(fd, address, size);
  return simulate(fd, [=](FakeNetwork& network) { return network.local_name(fd, address, size); });
}

int __wrap_getsockopt(int fd, int level, int option, void* value, socklen_t* size) {
  if (!is_simulated(fd)) return __real_getsockopt(fd, level, option, value, size);
  return simulate(fd, [=](FakeNetwork& network) {
    if (level != SOL_SOCKET || option != SO_ERROR) return -ENOPROTOOPT;
    const int error = network.take_error(fd);
    std::memcpy(value, &error, sizeof error);
    return 0;
  });
}

int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t size) {
  if (!is_simulated(fd)) return __real_setsockopt(fd, level, option, value, size);
  return simulate(fd, [=](FakeNetwork& network) {
    if (level != SOL_SOCKET || option != SO_REUSEADDR) return -ENOPROTOOPT;
    int on = 0;
    std::memcpy(&on, value, sizeof on);
    return network.set_reuse(fd, on != 0);
  });
}

int __wrap_fcntl(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  const long argument = va_arg(arguments, long);
  va_end(arguments);
  if (!is_simulated(fd)) return __real_fcntl(fd, command, argument);
  return simulate(fd, [=](FakeNetwork& network) {
    if (command == F_GETFL) return network.status_flags(fd);
    if (command == F_SETFL) return network.set_status_flags(fd, static_cast<int>(argument));
    return -EINVAL;
  });
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (!is_simulated(fd)) return __real_ioctl(fd, request, argument);
  return simulate(fd, [=](FakeNetwork& network) {
    if (request != FIONREAD) return -ENOTTY;
    const int size = network.readable_bytes(fd);
    std::memcpy(argument, &size, sizeof size);
    return 0;
  });
}

ssize_t __wrap_send(int fd, const void* bytes, size_t size, int flags) {
  if (!is_simulated(fd)) return __real_send(fd, bytes, size, flags);
  const std::string_view view(static_cast<const char*>(bytes), size);
  return simulate(fd, [=](FakeNetwork& network) { return network.send(fd, view, flags); });
}

// TarnSocket::try_send(), since what the library does not send has left its session all the same.
int __real__ZN10TarnSocket8try_sendEPKcm(TarnSocket* socket, const char* bytes, size_t size);
int __wrap__ZN10TarnSocket8try_sendEPKcm(TarnSocket* socket, const char* bytes, size_t size) {
  if (!is_simulated()) return __real__ZN10TarnSocket8try_sendEPKcm(socket, bytes, size);
  FakeNetwork& network = World::get().network();
  const auto sends = [&network] {
    const OutsideLibrary outside;
    return network.sends();
  };
  const uint64_t before = sends();
  const int result = __real__ZN10TarnSocket8try_sendEPKcm(socket, bytes, size);
  const OutsideLibrary outside;
  const int error = errno;
  if (socket->fd() >= 0 && network.sends() == before) network.not_sent(socket->fd(), {bytes, size});
  errno = error;
  return result;
}

ssize_t __wrap_recv(int fd, void* into, size_t room, int flags) {
  if (!is_simulated(fd)) return __real_recv(fd, into, room, flags);
  return simulate(fd, [=](FakeNetwork& network) {
    return network.receive(fd, static_cast<char*>(into), room, flags, nullptr, nullptr);
  });
}

ssize_t __wrap_recvfrom(int fd, void* into, size_t room, int flags, sockaddr* from,
                        socklen_t* from_size) {
  if (!is_simulated(fd)) return __real_recvfrom(fd, into, room, flags, from, from_size);
  return simulate(fd, [=](FakeNetwork& network) {
    return network.receive(fd, static_cast<char*>(into), room, flags, from, from_size);
  });
}

// Fills the first part, and goes on to the next ones with what is there already.
ssize_t __wrap_readv(int fd, const iovec* parts, int count) {
  if (!is_simulated(fd)) return __real_readv(fd, parts, count);
  return simulate(fd, [=](FakeNetwork& network) {
    long total = 0;
    for (int i = 0; i < count; ++i) {
      if (parts[i].iov_len == 0) continue;
      const long result =
          network.receive(fd, static_cast<char*>(parts[i].iov_base), parts[i].iov_len,
                          total > 0 ? MSG_DONTWAIT : 0, nullptr, nullptr);
      if (result <= 0) return total > 0 ? total : result;
      total += result;
      if (static_cast<size_t>(result) < parts[i].iov_len) break;
    }
    return total;
  });
}

int __wrap_poll(pollfd* fds, nfds_t count, int timeout) {
  if (!is_simulated()) return __real_poll(fds, count, timeout);
  return simulate(kNoDescriptor,
                  [=](FakeNetwork& network) { return network.poll(fds, count, timeout); });
}

int __wrap_select(int count, fd_set* read, fd_set* write, fd_set* error, timeval* timeout) {
  if (!is_simulated()) return __real_select(count, read, write, error, timeout);
  return simulate(kNoDescriptor, [=](FakeNetwork& network) {
    return network.select(count, read, write, error, timeout);
  });
}

int __wrap_epoll_create1(int flags) {
  if (!is_simulated()) return __real_epoll_create1(flags);
  return simulate(kNoDescriptor, [](FakeNetwork& network) { return network.epoll_create(); });
}

int __wrap_epoll_ctl(int set, int operation, int fd, epoll_event* event) {
  if (!is_simulated()) return __real_epoll_ctl(set, operation, fd, event);
  return simulate(
      set, [=](FakeNetwork& network) { return network.epoll_control(set, operation, fd, *event); });
}

int __wrap_epoll_wait(int set, epoll_event* events, int most, int timeout) {
  if (!is_simulated()) return __real_epoll_wait(set, events, most, timeout);
  return simulate(
      set, [=](FakeNetwork& network) { return network.epoll_wait(set, events, most, timeout); });
}

}  // extern "C"
