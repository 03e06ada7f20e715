// The TCP receive buffer over a socket pair, against a string.
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "tarn_io/tcp_buffer.h"
#include "tests/fuzz/support/fuzz_check.h"
#include "tests/fuzz/support/fuzz_input.h"

namespace {

using tarn_fuzz::FuzzInput;

constexpr size_t kBurst = 65536;  // what one read takes beyond the room that there is
constexpr size_t kMaxUnread = 400'000;

// What stands in the buffer and how much room is on either side of it.
struct BufferModel {
  std::string unread;
  size_t before = 0;
  size_t after = 0;
  bool is_held = false;

  void ensure(size_t len) {
    if (after >= len) return;
    if (is_held) {
      after = std::max(before + after, unread.size() + len);
      before = 0;
    } else if (before + after >= len) {
      after += before;
      before = 0;
    } else {
      after = len;
    }
  }
  void append(const std::string& bytes) {
    ensure(bytes.size());
    unread += bytes;
    after -= bytes.size();
  }
  // Room first, then what did not fit into it.
  void take_read(const std::string& bytes) {
    const size_t fits = std::min(after, bytes.size());
    append(bytes.substr(0, fits));
    append(bytes.substr(fits));
  }
};

class SocketPair {
 public:
  SocketPair() { FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends_) == 0); }
  ~SocketPair() {
    hang_up();
    close(ends_[0]);
  }
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;

  int reader() const { return ends_[0]; }
  bool is_open() const { return ends_[1] >= 0; }
  void hang_up() {
    if (is_open()) close(ends_[1]);
    ends_[1] = -1;
  }
  // Appends to `sent` what the system takes.
  void write_all(const std::string& bytes, std::string& sent) {
    const ssize_t count = send(ends_[1], bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count > 0) sent.append(bytes, 0, static_cast<size_t>(count));
  }

 private:
  int ends_[2];
};

class Script {
 public:
  explicit Script(FuzzInput& input) : input_(input), real_(input.flag() ? TcpBuffer() : sized()) {
    model_.after = real_.writeable_bytes();
  }

  void run() {
    while (!input_.empty() && model_.unread.size() < kMaxUnread) {
      step();
      compare();
    }
  }

 private:
  TcpBuffer sized() { return TcpBuffer(input_.u16()); }

  void step() {
    switch (input_.below(10)) {
      case 0:
        append();
        break;
      case 1:
        retrieve();
        break;
      case 2:
        real_.retrieve_all();
        model_.after += model_.before + model_.unread.size();
        model_.before = 0;
        model_.unread.clear();
        let_go();
        break;
      case 3:
        ensure();
        break;
      case 4:
        write_in_place();
        break;
      case 5:
        copy();
        break;
      case 6:
        if (pair_.is_open() && pending_.size() < kMaxUnread) pair_.write_all(pattern(), pending_);
        break;
      case 7:
        read();
        break;
      case 8:
        held_at_ = real_.hold();
        held_ = model_.unread;
        model_.is_held = !held_.empty();
        break;
      default:
        if (input_.u8() == 0) pair_.hang_up();
        break;
    }
  }

  // Mostly small, so that runs are fast; up to 64 KiB now and then.
  size_t draw_size() { return input_.below(4) == 0 ? input_.u16() : input_.u8() * 8U; }

  // Bytes that go on where the ones before ended.
  std::string pattern() {
    std::string bytes(draw_size(), '\0');
    for (char& each : bytes) each = static_cast<char>(next_++ * 2654435761U >> 24);
    return bytes;
  }

  void append() {
    const std::string bytes = pattern();
    real_.append(bytes.data(), bytes.size());
    model_.append(bytes);
  }

  void retrieve() {
    const size_t len = std::min(draw_size(), model_.unread.size());
    real_.retrieve(len);
    model_.unread.erase(0, len);
    model_.before += len;
    let_go();
  }

  void let_go() {
    held_.clear();
    model_.is_held = false;
  }

  void ensure() {
    const size_t len = draw_size();
    real_.ensure_writeable_bytes(len);
    model_.ensure(len);
  }

  void write_in_place() {
    std::string bytes = pattern();
    bytes.resize(std::min(bytes.size(), model_.after));
    if (!bytes.empty()) memcpy(real_.begin_write(), bytes.data(), bytes.size());
    real_.has_written(bytes.size());
    model_.append(bytes);
  }

  void copy() {
    TcpBuffer other(real_);
    real_ = other;
    // The copy is its own: what happens to the other one does not show.
    other.append("x", 1);
    other.retrieve_all();
  }

  void read() {
    int error = 0;
    const int count = real_.read_fd(pair_.reader(), &error);
    if (pending_.empty()) {
      FUZZ_CHECK(pair_.is_open() ? count == -1 && error == EAGAIN : count == 0);
      return;
    }
    const size_t expected = std::min(pending_.size(), model_.after + kBurst);
    FUZZ_CHECK(error == 0);
    // How a stream is cut into reads is the system's affair.
    FUZZ_CHECK(count > 0 && static_cast<size_t>(count) <= expected);
    model_.take_read(pending_.substr(0, static_cast<size_t>(count)));
    pending_.erase(0, static_cast<size_t>(count));
  }

  void compare() {
    FUZZ_CHECK(real_.readable_bytes() == model_.unread.size());
    FUZZ_CHECK(real_.prependable_bytes() == model_.before);
    FUZZ_CHECK(real_.writeable_bytes() == model_.after);
    FUZZ_CHECK(real_.peek() == real_.begin() + model_.before);
    FUZZ_CHECK(real_.begin_write() == real_.peek() + model_.unread.size());
    // It stays where it was, and as it was.
    FUZZ_CHECK(held_.empty() || memcmp(held_at_, held_.data(), held_.size()) == 0);
    FUZZ_CHECK(model_.unread.empty() ||
               memcmp(real_.peek(), model_.unread.data(), model_.unread.size()) == 0);
  }

  FuzzInput& input_;
  TcpBuffer real_;
  BufferModel model_;
  std::string held_;
  const char* held_at_ = nullptr;
  SocketPair pair_;
  std::string pending_;  // in the socket
  unsigned next_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  Script(input).run();
  return 0;
}
