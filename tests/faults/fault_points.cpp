#include "tests/faults/fault_points.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <new>

namespace {

// ms; a wake-up that is lost costs the I/O thread a whole wait, ten seconds: the same here in less.
constexpr int kLongestPoll = 300;

std::atomic<bool> counting{false};
std::atomic<int> failing_point{kFaultPointCount};
std::atomic<unsigned long> failing_call{0};
std::atomic<int> failing_error{0};
std::atomic<bool> failing_lasts{false};
std::atomic<bool> struck{false};
std::atomic<unsigned long> calls[kFaultPointCount];

void arm(FaultPoint point, unsigned long kth, int error, bool lasts) {
  for (auto& each : calls) each = 0;
  failing_point = point;
  failing_call = kth;
  failing_error = error;
  failing_lasts = lasts;
  struck = false;
  counting = true;
}

// Counts a call; true for one that has to fail.
bool fails(FaultPoint point) {
  if (!counting) return false;
  const unsigned long number = ++calls[point];
  if (point != failing_point || number < failing_call) return false;
  if (number > failing_call && !failing_lasts) return false;
  struck = true;
  return true;
}

// What most functions do that fail.
int fail_with_errno() {
  errno = failing_error;
  return -1;
}

}  // namespace

const char* fault_point_name(FaultPoint point) {
  static const char* const names[] = {
#define TARN_NAME(name) #name,
      TARN_FAULT_POINTS(TARN_NAME)
#undef TARN_NAME
  };
  return names[point];
}

void fault_count_calls() { fault_arm(kFaultPointCount, 0, 0); }

void fault_arm(FaultPoint point, unsigned long kth, int error) { arm(point, kth, error, false); }

void fault_arm_lasting(FaultPoint point, unsigned long kth, int error) {
  arm(point, kth, error, true);
}

void fault_disarm() { counting = false; }

unsigned long fault_calls(FaultPoint point) { return calls[point]; }

bool fault_has_struck() { return struck; }

// The linker redirects a call of f() to __wrap_f() and one of __real_f() to f().
extern "C" {

// Fails without having done anything, and tells the error by errno.
#define TARN_FAILS_BY_ERRNO(type, function, parameters, arguments)             \
  type __real_##function parameters;                                           \
  type __wrap_##function parameters {                                          \
    if (fails(kFault_##function)) return static_cast<type>(fail_with_errno()); \
    return __real_##function arguments;                                        \
  }

// Fails without having done anything, and returns the error; 0 is a wake-up without a reason.
#define TARN_FAILS_BY_RESULT(function, parameters, arguments)                             \
  int __real_##function parameters;                                                       \
  int __wrap_##function parameters {                                                      \
    return fails(kFault_##function) ? failing_error.load() : __real_##function arguments; \
  }

// Does its work and reports an error all the same: functions that on this system cannot fail, of
// which the library promises to go on after a failure.
#define TARN_FAILS_AFTERWARDS(function, parameters, arguments)       \
  int __real_##function parameters;                                  \
  int __wrap_##function parameters {                                 \
    const int result = __real_##function arguments;                  \
    return fails(kFault_##function) ? failing_error.load() : result; \
  }

TARN_FAILS_BY_ERRNO(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
TARN_FAILS_BY_ERRNO(int, bind, (int fd, const sockaddr* to, socklen_t size), (fd, to, size))
TARN_FAILS_BY_ERRNO(int, listen, (int fd, int backlog), (fd, backlog))
TARN_FAILS_BY_ERRNO(int, accept4, (int fd, sockaddr* from, socklen_t* size, int flags),
                    (fd, from, size, flags))
TARN_FAILS_BY_ERRNO(int, connect, (int fd, const sockaddr* to, socklen_t size), (fd, to, size))
TARN_FAILS_BY_ERRNO(int, getsockname, (int fd, sockaddr* own, socklen_t* size), (fd, own, size))
TARN_FAILS_BY_ERRNO(int, getsockopt, (int fd, int level, int name, void* value, socklen_t* size),
                    (fd, level, name, value, size))
TARN_FAILS_BY_ERRNO(int, setsockopt,
                    (int fd, int level, int name, const void* value, socklen_t size),
                    (fd, level, name, value, size))
// The library passes an int and a pointer, which arrive the same way without the ellipsis.
TARN_FAILS_BY_ERRNO(int, fcntl, (int fd, int command, int argument), (fd, command, argument))
TARN_FAILS_BY_ERRNO(int, ioctl, (int fd, unsigned long request, void* argument),
                    (fd, request, argument))
TARN_FAILS_BY_ERRNO(ssize_t, recv, (int fd, void* to, size_t size, int flags),
                    (fd, to, size, flags))
TARN_FAILS_BY_ERRNO(ssize_t, recvfrom,
                    (int fd, void* to, size_t size, int flags, sockaddr* from,
                     socklen_t* from_size),
                    (fd, to, size, flags, from, from_size))
TARN_FAILS_BY_ERRNO(ssize_t, readv, (int fd, const iovec* parts, int count), (fd, parts, count))
TARN_FAILS_BY_ERRNO(ssize_t, send, (int fd, const void* data, size_t size, int flags),
                    (fd, data, size, flags))
TARN_FAILS_BY_ERRNO(int, epoll_create1, (int flags), (flags))
TARN_FAILS_BY_ERRNO(int, epoll_ctl, (int set, int operation, int fd, epoll_event* event),
                    (set, operation, fd, event))
TARN_FAILS_BY_ERRNO(int, usleep, (unsigned int us), (us))
TARN_FAILS_BY_ERRNO(int, sem_wait, (sem_t * semaphore), (semaphore))

TARN_FAILS_BY_RESULT(pthread_create,
                     (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*),
                      void* argument),
                     (thread, attributes, body, argument))
TARN_FAILS_BY_RESULT(pthread_setname_np, (pthread_t thread, const char* name), (thread, name))
TARN_FAILS_BY_RESULT(pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex),
                     (condition, mutex))
TARN_FAILS_BY_RESULT(pthread_cond_timedwait,
                     (pthread_cond_t * condition, pthread_mutex_t* mutex, const timespec* until),
                     (condition, mutex, until))

TARN_FAILS_AFTERWARDS(pthread_mutex_init,
                      (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes),
                      (mutex, attributes))
TARN_FAILS_AFTERWARDS(pthread_mutexattr_init, (pthread_mutexattr_t * attributes), (attributes))
TARN_FAILS_AFTERWARDS(pthread_mutexattr_settype, (pthread_mutexattr_t * attributes, int type),
                      (attributes, type))
TARN_FAILS_AFTERWARDS(pthread_cond_init,
                      (pthread_cond_t * condition, const pthread_condattr_t* attributes),
                      (condition, attributes))
TARN_FAILS_AFTERWARDS(pthread_condattr_init, (pthread_condattr_t * attributes), (attributes))
TARN_FAILS_AFTERWARDS(pthread_condattr_setclock, (pthread_condattr_t * attributes, clockid_t clock),
                      (attributes, clock))

int __real_poll(pollfd* fds, nfds_t count, int timeout);
int __wrap_poll(pollfd* fds, nfds_t count, int timeout) {
  if (fails(kFault_poll)) return fail_with_errno();
  return __real_poll(fds, count, std::min(timeout, kLongestPoll));
}

int __real_epoll_wait(int set, epoll_event* events, int most, int timeout);
int __wrap_epoll_wait(int set, epoll_event* events, int most, int timeout) {
  if (fails(kFault_epoll_wait)) return fail_with_errno();
  return __real_epoll_wait(set, events, most, std::min(timeout, kLongestPoll));
}

// The descriptor is gone even where close() fails.
int __real_close(int fd);
int __wrap_close(int fd) {
  const int result = __real_close(fd);
  return fails(kFault_close) ? fail_with_errno() : result;
}

void* __real__Znwm(size_t size);
void* __wrap__Znwm(size_t size) {
  if (fails(kFault__Znwm)) throw std::bad_alloc();
  return __real__Znwm(size);
}

void* __real__Znam(size_t size);
void* __wrap__Znam(size_t size) {
  if (fails(kFault__Znam)) throw std::bad_alloc();
  return __real__Znam(size);
}
}
