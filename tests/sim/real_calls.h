// The system's own calls behind those that the simulator stands in for (the linker's --wrap).
#ifndef TARN_TESTS_SIM_REAL_CALLS_H_
#define TARN_TESTS_SIM_REAL_CALLS_H_

#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>

extern "C" {
int* __real___errno_location(void);
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __real_pthread_mutex_destroy(pthread_mutex_t* mutex);
int __real_sem_post(sem_t* semaphore);

int __real_socket(int domain, int type, int protocol);
int __real_close(int fd);
int __real_bind(int fd, const sockaddr* address, socklen_t size);
int __real_connect(int fd, const sockaddr* address, socklen_t size);
int __real_listen(int fd, int backlog);
int __real_accept(int fd, sockaddr* address, socklen_t* size);
int __real_accept4(int fd, sockaddr* address, socklen_t* size, int flags);
int __real_getsockname(int fd, sockaddr* address, socklen_t* size);
int __real_getsockopt(int fd, int level, int option, void* value, socklen_t* size);
int __real_setsockopt(int fd, int level, int option, const void* value, socklen_t size);
int __real_fcntl(int fd, int command, ...);
int __real_ioctl(int fd, unsigned long request, ...);
ssize_t __real_send(int fd, const void* bytes, size_t size, int flags);
ssize_t __real_recv(int fd, void* into, size_t room, int flags);
ssize_t __real_recvfrom(int fd, void* into, size_t room, int flags, sockaddr* from,
                        socklen_t* from_size);
ssize_t __real_readv(int fd, const iovec* parts, int count);
int __real_poll(pollfd* fds, nfds_t count, int timeout);
int __real_epoll_create1(int flags);
int __real_epoll_ctl(int set, int operation, int fd, epoll_event* event);
int __real_epoll_wait(int set, epoll_event* events, int most, int timeout);
int __real_select(int count, fd_set* read, fd_set* write, fd_set* error, timeval* timeout);
}

#endif  // TARN_TESTS_SIM_REAL_CALLS_H_
