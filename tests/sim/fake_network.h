// FakeNetwork: the system's sockets, as the library sees them in a simulated run.
#ifndef TARN_TESTS_SIM_FAKE_NETWORK_H_
#define TARN_TESTS_SIM_FAKE_NETWORK_H_

#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/sim/fake_socket.h"
#include "tests/sim/random.h"
#include "tests/sim/scheduler.h"
#include "tests/sim/spin_watch.h"

namespace tarn_sim {

// Stands between one socket and whoever plays the network for it.
class Carrier {
 public:
  virtual ~Carrier() = default;
  // The library sends a datagram. Unless it is `accepted` the call fails and it goes nowhere.
  virtual void sent(std::string_view datagram, bool accepted) = 0;
  // The running task has read a datagram, cut to the room that it had.
  virtual void received(std::string_view datagram) = 0;
  // The task that read the last one is done with it.
  virtual void taken() = 0;
};

// One host with nothing but its loopback interface, on which everything arrives at once. IPv4 only.
// Descriptors begin high, so that they are told from real ones; the lowest free number is the next,
// as with any system, so that whoever uses one after it was closed meets somebody else's socket. A
// call on a number that is nobody's breaks the run off. Calls return what the system's would, or
// the negative error.
class FakeNetwork {
 public:
  static constexpr int kFirstDescriptor = 1000;
  // A port from which nobody but strangers sends.
  static constexpr uint16_t kStranger = 7;

  FakeNetwork(Scheduler& scheduler, Random random) : scheduler_(scheduler), random_(random) {}

  // --- The system's calls ---

  int socket(int domain, int type);
  int close(int fd);
  int bind(int fd, const sockaddr* address);
  int connect(int fd, const sockaddr* address);
  int listen(int fd);
  int accept(int fd, sockaddr* address, socklen_t* size);
  int local_name(int fd, sockaddr* address, socklen_t* size);
  int status_flags(int fd);
  int set_status_flags(int fd, int flags);
  // SO_ERROR, which goes by being read.
  int take_error(int fd);
  int set_reuse(int fd, bool reuse);
  // FIONREAD.
  int readable_bytes(int fd);
  long send(int fd, std::string_view bytes, int flags);
  // `from` may be null.
  long receive(int fd, char* into, size_t room, int flags, sockaddr* from, socklen_t* from_size);
  int poll(pollfd* fds, nfds_t count, int timeout_ms);
  int select(int count, fd_set* read, fd_set* write, fd_set* error, const timeval* timeout);
  int epoll_create();
  int epoll_control(int set, int operation, int fd, const epoll_event& event);
  int epoll_wait(int set, epoll_event* events, int most, int timeout_ms);

  // --- The simulator's ---

  // A port of its own for somebody.
  uint16_t reserve_port() { return next_reserved_++; }
  // Datagrams from `port` to `peer_port` are the carrier's to bring along; what the socket on
  // `port` reads from there is announced to it.
  void set_carrier(uint16_t port, uint16_t peer_port, Carrier* carrier);
  void remove_carrier(uint16_t port, uint16_t peer_port);
  // A datagram has come to the end of its way.
  void arrive(uint16_t from, uint16_t to, std::string datagram);
  // The peer of the socket on `port` that was connected last.
  uint16_t newest_peer_of(uint16_t port) const;
  // The running task has not sent what it meant to send on the descriptor.
  void not_sent(int fd, std::string_view bytes);
  // By the running task.
  uint64_t sends() { return sends_[scheduler_.self()]; }
  size_t descriptors() const { return sockets_.size(); }
  // From now on there is room for everything and no send is refused.
  void end_faults() { faulty_ = false; }

 private:
  using Polled = std::vector<FakeSocketPtr>;

  FakeSocketPtr find(int fd) const;
  int add(FakeSocketPtr socket);
  bool is_taken(const FakeSocket& by, uint16_t port) const;
  uint16_t draw_port(const FakeSocket& socket);
  void give_port(FakeSocket& socket);
  void changed() { scheduler_.wake(this); }
  bool wait(const FakeSocket& socket, int flags);
  void hang_up(FakeSocket& socket);
  void done_reading();
  static bool has_room(const FakeSocket& socket);
  short readiness(const FakeSocket& socket) const;
  int look(pollfd* fds, const Polled& polled) const;
  int interrupt(pollfd* fds, const Polled& polled);
  int look(const FakeSocket::Watched& watched, epoll_event* events, int most) const;

  int connect_stream(const FakeSocketPtr& socket);
  int connect_refused(FakeSocket& socket);
  long send_datagram(FakeSocket& socket, std::string_view bytes);
  long send_too_late(FakeSocket& socket, size_t size);
  long send_stream(FakeSocket& socket, std::string_view bytes, int flags);
  long receive_datagram(FakeSocket& socket, char* into, size_t room, int flags, Address& from);
  long receive_stream(FakeSocket& socket, char* into, size_t room, int flags);
  void announce(const FakeSocket& socket, const Address& from, std::string_view datagram);
  bool goes_wrong() const;
  void draw_unreachable(FakeSocket& socket);
  void draw_stray(uint16_t port);
  int refusal(FakeSocket& socket, size_t size);
  FakeSocketPtr receiver(uint16_t from, uint16_t to) const;
  void refuse_sender(uint16_t from, uint16_t to);
  Carrier* carrier_of(uint16_t port, uint16_t peer_port) const;

  Scheduler& scheduler_;
  Random random_;
  std::map<int, FakeSocketPtr> sockets_;
  std::map<std::pair<uint16_t, uint16_t>, Carrier*> carriers_;
  Carrier* reading_ = nullptr;  // whose datagram was read last, and
  TaskId reader_ = 0;           // by whom
  std::map<TaskId, uint64_t> sends_;
  uint64_t binds_ = 0;
  SpinWatch spin_watch_;
  uint16_t next_reserved_ = 20000;
  uint16_t next_port_ = 32768;
  bool faulty_ = true;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_FAKE_NETWORK_H_
