// TcpBuffer: the growable receive buffer of a TCP socket.
#ifndef TARN_TARN_IO_TCP_BUFFER_H_
#define TARN_TARN_IO_TCP_BUFFER_H_

#include <stddef.h>

#include <vector>

// Unread bytes lie between two indexes of one vector. One readv fills it, consuming moves the read
// index, and room is made by moving what is unread to the front before growing. Not synchronised.
class TcpBuffer {
 public:
  TcpBuffer();
  // With room for `size` bytes.
  explicit TcpBuffer(size_t size) : data_(size) {}

  size_t readable_bytes() const { return write_index_ - read_index_; }
  size_t writeable_bytes() const { return data_.size() - write_index_; }
  size_t prependable_bytes() const { return read_index_; }

  char* begin() { return data_.data(); }
  // The first unread byte.
  char* peek() { return begin() + read_index_; }
  char* begin_write() { return begin() + write_index_; }
  // `n` bytes were put at begin_write(); unchecked.
  void has_written(size_t n) { write_index_ += n; }

  // Drops `len` unread bytes. Requires: that many are there.
  void retrieve(size_t len);
  void retrieve_all();
  void append(const char* data, size_t len);
  void ensure_writeable_bytes(size_t len);
  // Makes room for `len` bytes: by moving the unread ones to the front, or else by growing.
  void make_space(size_t len);

  // Takes what `fd` has, at most the writable tail and 64 KiB, in one system call. Returns its
  // result; when that is negative, `*error` is errno and the buffer is as it was.
  int read_fd(int fd, int* error);

 private:
  std::vector<char> data_;
  size_t read_index_ = 0;   // start of unread bytes
  size_t write_index_ = 0;  // end of unread bytes
};

#endif  // TARN_TARN_IO_TCP_BUFFER_H_
