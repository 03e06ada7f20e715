// TcpBuffer: the growable receive buffer of a TCP socket.
#ifndef TARN_TARN_IO_TCP_BUFFER_H_
#define TARN_TARN_IO_TCP_BUFFER_H_

#include <stddef.h>

#include <vector>

// Unread bytes lie between two indexes of one vector. One readv fills it, consuming moves the read
// index, and room is made by moving what is unread to the front before growing. Nothing that is
// held moves: its vector is kept, and what is unread goes on in another one. Not synchronised.
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
  // The same, and what is unread now stays there, and good to read on another thread, whatever is
  // appended, until the next call of this or of retrieve().
  char* hold();
  char* begin_write() { return begin() + write_index_; }
  // `n` bytes were put at begin_write(); unchecked.
  void has_written(size_t n) { write_index_ += n; }

  // Drops `len` unread bytes. Requires: that many are there.
  void retrieve(size_t len);
  void retrieve_all();
  void append(const char* data, size_t len);
  void ensure_writeable_bytes(size_t len);
  // Makes room for `len` bytes: by moving the unread ones to the front, or else by growing; while
  // any are held, by copying the unread ones.
  void make_space(size_t len);

  // Takes what `fd` has, at most the writable tail and 64 KiB, in one system call. Returns its
  // result; when that is negative, `*error` is errno and the buffer is as it was.
  int read_fd(int fd, int* error);

 private:
  void let_go();
  void go_on_elsewhere(size_t len);

  std::vector<char> data_;
  size_t read_index_ = 0;   // start of unread bytes
  size_t write_index_ = 0;  // end of unread bytes
  bool is_held_ = false;
  std::vector<char> held_;  // what is held, once that is not in data_ any more
};

#endif  // TARN_TARN_IO_TCP_BUFFER_H_
