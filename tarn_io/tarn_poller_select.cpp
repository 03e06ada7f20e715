// TarnPoller's wait by select(), and its dispatch.
#include <sys/select.h>

#include <algorithm>

#include "src/tarn_log.h"
#include "tarn_io/tarn_poller.h"

std::vector<int> TarnPoller::watched() {
  const oxutils::scoped_lock hold(lock_);
  std::vector<int> fds;
  for (const auto& each : handlers_) fds.push_back(each.first);
  return fds;
}

// True when nothing is watched; `highest` counts descriptors without live slots too.
bool TarnPoller::fill_sets(fd_set* read, fd_set* write, fd_set* error, int& highest) {
  const oxutils::scoped_lock hold(lock_);
  polling_thread_ = pthread_self();
  for (const auto& each : handlers_) {
    const int fd = each.first;
    highest = std::max(highest, fd);
    if (fd < 0 || fd >= FD_SETSIZE) continue;
    if (each.second.read_func) FD_SET(fd, read);
    if (each.second.write_func) FD_SET(fd, write);
    if (each.second.error_func) FD_SET(fd, error);
  }
  return handlers_.empty();
}

bool TarnPoller::select(unsigned int timeout) {
  fd_set read;
  fd_set write;
  fd_set error;
  FD_ZERO(&read);
  FD_ZERO(&write);
  FD_ZERO(&error);
  int highest = -1;
  if (fill_sets(&read, &write, &error, highest)) return false;
  timeval wait;
  wait.tv_sec = timeout / 1000;
  wait.tv_usec = static_cast<suseconds_t>(timeout % 1000) * 1000;
  const int count = std::min(highest + 1, static_cast<int>(FD_SETSIZE));
  const int result = ::select(count, &read, &write, &error, &wait);
  if (result < 0) {
    TARN_LOG_ERROR("select ret %d", result);
    return false;
  }
  handle_event(&read, &write, &error);
  return true;
}

void TarnPoller::handle_event(fd_set* read, fd_set* write, fd_set* error) {
  for (const int fd : watched()) {
    if (fd < 0 || fd >= FD_SETSIZE) continue;
    if (FD_ISSET(fd, read)) run(fd, &EventHandler::read_func, kAny);
    if (FD_ISSET(fd, write)) run_write(fd, kAny);
    if (FD_ISSET(fd, error)) run(fd, &EventHandler::error_func, kAny);
  }
}
