// Datagrams through the library's sockets, on loopback; what the kernel does is not counted.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <vector>

#include "tarn/io.h"
#include "tests/instructions/count.h"
#include "tests/instructions/ends.h"
#include "tests/instructions/paths.h"

namespace instructions {

namespace {

constexpr int kRounds = 500;
constexpr int kSize = 64;
// Datagrams that keep the I/O thread busy, and that are counted while it is: all of them wait in
// the socket's buffer.
constexpr int kBefore = 70;
constexpr int kCounted = 100;

// A handle of the library's and a plain socket, connected to each other.
class Wire {
 public:
  Wire() : own_(socket(AF_INET, SOCK_DGRAM, 0)) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in addresses[] = {bind_to_free_port(fd), bind_to_free_port(own_)};
    connect_to(fd, addresses[1]);
    connect_to(own_, addresses[0]);
    io_ = tarn_create_io_from_fd(fd);
  }
  ~Wire() {
    tarn_destroy_io(io_);
    close(own_);
  }
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  void* io() const { return io_; }
  void send(const std::vector<char>& datagram) const {
    ::send(own_, datagram.data(), datagram.size(), 0);
  }
  // At the plain socket.
  bool has_arrived() const {
    char datagram = 0;
    return recv(own_, &datagram, sizeof datagram, MSG_DONTWAIT) > 0;
  }

 private:
  static sockaddr_in bind_to_free_port(int fd) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), size);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    return address;
  }
  static void connect_to(int fd, const sockaddr_in& peer) {
    connect(fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
  }

  const int own_;
  void* io_;
};

// The peer reads nothing: what its buffer has no room for is dropped by the kernel, unseen.
void count_write() {
  const Path path{"socket_write_64", kRounds};
  const Wire wire;
  const std::vector<char> datagram(kSize, 'x');
  long written = 0;
  count(path, [&] { written += tarn_write(wire.io(), datagram.data(), kSize); });
  require(written == long{path.all_rounds()} * kSize, path, "writing failed");
}

void count_read() {
  const Path path{"socket_read_64", kRounds};
  const Wire wire;
  const std::vector<char> datagram(kSize, 'x');
  std::vector<char> buffer(kSize);
  long read = 0;
  count(
      path, [&] { wire.send(datagram); },
      [&] { read += tarn_read(wire.io(), buffer.data(), kSize); });
  require(read == long{path.all_rounds()} * kSize, path, "reading failed");
}

void count_attached_output() {
  const Wire wire;
  End end;
  tarn_attach_io(end.handle(), wire.io());
  std::vector<char> message(kSize, 'x');
  const Path path{"attached_output_64", kRounds};
  count(path, [&] { end.send_unreliable(message); });
  require(wire.has_arrived(), path, "nothing came out of the socket");
}

// The I/O thread's turns, one for each datagram. It waits in the first one's callback until the
// others are there, so that no turn finds nothing.
class AttachedInput {
 public:
  void run() {
    const Wire wire;
    End end;
    std::vector<char> datagram;
    tarn_set_output_callback(end.handle(), keep, &datagram);
    std::vector<char> message(kSize, 'x');
    end.send_unreliable(message);
    tarn_set_recv_unreliable_callback(end.handle(), receive, this);
    tarn_attach_io(end.handle(), wire.io());
    wire.send(datagram);
    first_is_here_.get_future().wait();
    for (int i = 0; i < kBefore + kCounted; ++i) wire.send(datagram);
    all_are_here_.set_value();
    ended_.get_future().wait();
  }

 private:
  static int keep(char* data, int len, void* into) {
    static_cast<std::vector<char>*>(into)->assign(data, data + len);
    return 0;
  }

  static int receive(char*, int, void* self) {
    static_cast<AttachedInput*>(self)->received();
    return 0;
  }

  void received() {
    ++received_;
    if (received_ == 1) {
      first_is_here_.set_value();
      all_are_here_.get_future().wait();
    } else if (received_ == 1 + kBefore) {
      begin_count();
    } else if (received_ == 1 + kBefore + kCounted) {
      end_count();
      report(Path{"attached_input_64", 1, kCounted});
      ended_.set_value();
    }
  }

  int received_ = 0;  // on the I/O thread
  std::promise<void> first_is_here_;
  std::promise<void> all_are_here_;
  std::promise<void> ended_;
};

}  // namespace

void count_sockets() {
  count_write();
  count_read();
  count_attached_output();
  AttachedInput().run();
}

}  // namespace instructions
