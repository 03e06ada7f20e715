#include "tests/faults/fault_table.h"

#include <errno.h>
#include <string.h>

namespace tarn_test {
namespace {

constexpr Outcome kCompletes = Outcome::kCompletes;
constexpr Outcome kMaySpoil = Outcome::kMaySpoil;

struct Row {
  FaultPoint point;
  Outcome outcome;
  std::vector<int> errors;
};

// A wait that returns 0 has been woken for no reason.
const std::vector<Row>& rows() {
  static const std::vector<Row> all{
      {kFault_socket, kMaySpoil, {EMFILE, ENFILE, EAFNOSUPPORT, ENOMEM}},
      {kFault_bind, kMaySpoil, {EADDRINUSE, EACCES, ENOMEM}},
      {kFault_listen, kMaySpoil, {EADDRINUSE, ENOMEM}},
      {kFault_accept4, kCompletes, {EMFILE, ENFILE, ENOMEM, ECONNABORTED, EINTR, EAGAIN}},
      {kFault_connect, kMaySpoil, {EINTR, ENETUNREACH, ECONNREFUSED, EADDRNOTAVAIL}},
      {kFault_getsockname, kCompletes, {ENOBUFS}},
      {kFault_getsockopt, kCompletes, {ENOBUFS}},
      {kFault_setsockopt, kMaySpoil, {ENOMEM}},
      {kFault_fcntl, kCompletes, {EINVAL}},
      {kFault_ioctl, kCompletes, {EINVAL}},
      {kFault_poll, kCompletes, {EINTR, ENOMEM, EINVAL}},
      {kFault_epoll_create1, kCompletes, {EMFILE, ENFILE, ENOMEM}},
      {kFault_epoll_ctl, kCompletes, {ENOMEM, ENOSPC, EPERM}},
      {kFault_epoll_wait, kCompletes, {EINTR, EBADF}},
      {kFault_recv, kCompletes, {EAGAIN, EINTR}},
      // A listener's and its peers' reads; a peer's pending error may come out of any of them.
      {kFault_recvfrom, kCompletes, {EAGAIN, EINTR, ENOMEM, ECONNREFUSED, EHOSTUNREACH}},
      {kFault_readv, kCompletes, {EAGAIN, EINTR}},
      // The stream is given up.
      {kFault_readv, kMaySpoil, {ECONNRESET, ENOMEM}},
      {kFault_send, kCompletes, {EAGAIN, EINTR, ENOBUFS, ECONNREFUSED, EMSGSIZE, EPIPE}},
      {kFault_close, kCompletes, {EINTR, EIO}},
      {kFault_usleep, kCompletes, {EINTR}},
      {kFault_sem_wait, kCompletes, {EINTR}},
      {kFault_pthread_setname_np, kCompletes, {ENOENT}},
      {kFault_pthread_mutex_init, kCompletes, {ENOMEM}},
      {kFault_pthread_mutexattr_init, kCompletes, {ENOMEM}},
      {kFault_pthread_mutexattr_settype, kCompletes, {EINVAL}},
      {kFault_pthread_cond_init, kCompletes, {ENOMEM}},
      {kFault_pthread_condattr_init, kCompletes, {ENOMEM}},
      {kFault_pthread_condattr_setclock, kCompletes, {EINVAL}},
      {kFault_pthread_cond_wait, kCompletes, {0}},
      {kFault_pthread_cond_timedwait, kCompletes, {0, ETIMEDOUT}},
  };
  return all;
}

}  // namespace

const std::vector<Fault>& system_call_faults() {
  static const std::vector<Fault> all = [] {
    std::vector<Fault> faults;
    for (const Row& row : rows()) {
      for (const int error : row.errors) faults.push_back({row.point, error, row.outcome});
    }
    // The wake-up takes these for the end of its connection and builds a new one; the old one's
    // listener stays open, as every one does.
    for (const int error : {ECONNRESET, ECONNREFUSED, ENOMEM, EBADF}) {
      faults.push_back({kFault_recv, error, kCompletes, 1});
    }
    for (const int error : {EAGAIN, EPERM}) {
      faults.push_back({kFault_pthread_create, error, kMaySpoil});
    }
    // What is tried again and again must not cost something each time.
    faults.push_back({kFault_pthread_create, EAGAIN, kMaySpoil, 0, true});
    faults.push_back({kFault_epoll_create1, EMFILE, kCompletes, 0, true});
    return faults;
  }();
  return all;
}

const std::vector<Fault>& allocation_faults() {
  static const std::vector<Fault> all{{kFault__Znwm, ENOMEM, Outcome::kOutOfMemory},
                                      {kFault__Znam, ENOMEM, Outcome::kOutOfMemory}};
  return all;
}

std::string describe(const Fault& fault) {
  const char* const name = fault.error != 0 ? strerrorname_np(fault.error) : "for no reason";
  const char* const onwards = fault.lasts ? " from then on" : "";
  return std::string(fault_point_name(fault.point)) + " " + name + onwards;
}

}  // namespace tarn_test
