#include "tarn_io/tcp_buffer.h"

#include <errno.h>
#include <string.h>
#include <sys/uio.h>

#include <algorithm>

#include "oxutils/assert.h"

namespace {

constexpr size_t kInitialSize = 1024;
constexpr size_t kBurstSize = 65536;

}  // namespace

TcpBuffer::TcpBuffer() : data_(kInitialSize) {}

// Where nothing is unread, nothing can be looked at.
char* TcpBuffer::hold() {
  let_go();
  is_held_ = readable_bytes() > 0;
  return peek();
}

void TcpBuffer::let_go() {
  is_held_ = false;
  held_ = std::vector<char>();
}

void TcpBuffer::retrieve(size_t len) {
  OX_ASSERT("tarn_io/tcp_buffer", __LINE__, len <= readable_bytes());
  let_go();
  read_index_ += len;
}

void TcpBuffer::retrieve_all() {
  let_go();
  read_index_ = write_index_ = 0;
}

void TcpBuffer::append(const char* data, size_t len) {
  ensure_writeable_bytes(len);
  if (len > 0) memcpy(begin_write(), data, len);
  write_index_ += len;
}

void TcpBuffer::ensure_writeable_bytes(size_t len) {
  if (writeable_bytes() < len) make_space(len);
  OX_ASSERT("tarn_io/tcp_buffer", __LINE__, writeable_bytes() >= len);
}

void TcpBuffer::make_space(size_t len) {
  if (is_held_) {
    go_on_elsewhere(len);
    return;
  }
  if (writeable_bytes() + prependable_bytes() < len) {
    data_.resize(write_index_ + len);
    return;
  }
  const size_t unread = readable_bytes();
  if (unread > 0) memmove(begin(), peek(), unread);
  read_index_ = 0;
  write_index_ = unread;
}

// With room for as much again as is copied, so that each byte is copied once on average.
void TcpBuffer::go_on_elsewhere(size_t len) {
  const size_t unread = readable_bytes();
  std::vector<char> next(std::max(data_.size(), 2 * unread + len));
  if (unread > 0) memcpy(next.data(), peek(), unread);
  data_.swap(next);
  if (held_.empty()) held_.swap(next);
  read_index_ = 0;
  write_index_ = unread;
}

int TcpBuffer::read_fd(int fd, int* error) {
  // The stack takes the excess of a burst, so that the buffer grows only by what really came.
  char burst[kBurstSize];
  const size_t tail = writeable_bytes();
  const iovec parts[] = {{begin_write(), tail}, {burst, sizeof burst}};
  const ssize_t result = readv(fd, parts, 2);
  if (result < 0) {
    *error = errno;
    return static_cast<int>(result);
  }
  const auto count = static_cast<size_t>(result);
  if (count <= tail) {
    write_index_ += count;
  } else {
    write_index_ = data_.size();
    append(burst, count - tail);
  }
  return static_cast<int>(result);
}
