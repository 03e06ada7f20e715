// The places where the library calls the system, each of which can be made to fail once.
//
// They are in libtarn_faulty.so: the library's own objects, linked so that their calls of the
// functions below, and only theirs, pass through here. A test program's own calls do not.
#ifndef TARN_TESTS_FAULTS_FAULT_POINTS_H_
#define TARN_TESTS_FAULTS_FAULT_POINTS_H_

// One entry per function; the name is the linker's, so that the build can make its options from the
// same list. operator new stands at the end.
#define TARN_FAULT_POINTS(POINT)   \
  POINT(socket)                    \
  POINT(bind)                      \
  POINT(listen)                    \
  POINT(accept4)                   \
  POINT(connect)                   \
  POINT(getsockname)               \
  POINT(getsockopt)                \
  POINT(setsockopt)                \
  POINT(fcntl)                     \
  POINT(ioctl)                     \
  POINT(poll)                      \
  POINT(epoll_create1)             \
  POINT(epoll_ctl)                 \
  POINT(epoll_wait)                \
  POINT(recv)                      \
  POINT(recvfrom)                  \
  POINT(readv)                     \
  POINT(send)                      \
  POINT(close)                     \
  POINT(usleep)                    \
  POINT(sem_wait)                  \
  POINT(pthread_create)            \
  POINT(pthread_setname_np)        \
  POINT(pthread_mutex_init)        \
  POINT(pthread_mutexattr_init)    \
  POINT(pthread_mutexattr_settype) \
  POINT(pthread_cond_init)         \
  POINT(pthread_condattr_init)     \
  POINT(pthread_condattr_setclock) \
  POINT(pthread_cond_wait)         \
  POINT(pthread_cond_timedwait)    \
  POINT(_Znwm)                     \
  POINT(_Znam)

enum FaultPoint {
#define TARN_ENUMERATE(name) kFault_##name,
  TARN_FAULT_POINTS(TARN_ENUMERATE)
#undef TARN_ENUMERATE
      kFaultPointCount
};

extern "C" {

const char* fault_point_name(FaultPoint point);

// Counts calls from now on, from 0.
void fault_count_calls();
// The same, and the `kth` call (1 is the first) of `point` fails with `error`.
void fault_arm(FaultPoint point, unsigned long kth, int error);
// The same, and all calls after that one fail as well.
void fault_arm_lasting(FaultPoint point, unsigned long kth, int error);
// Nothing fails and nothing is counted from now on.
void fault_disarm();

unsigned long fault_calls(FaultPoint point);
// Whether the armed fault has struck.
bool fault_has_struck();
}

#endif  // TARN_TESTS_FAULTS_FAULT_POINTS_H_
