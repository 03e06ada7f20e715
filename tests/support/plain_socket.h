// The other end of the library's sockets, made of system calls alone, and what the tests of the
// socket calls measure: descriptors, processor time, events.
#ifndef TARN_TESTS_SUPPORT_PLAIN_SOCKET_H_
#define TARN_TESTS_SUPPORT_PLAIN_SOCKET_H_

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tarn_test {

constexpr const char* kLoopback = "127.0.0.1";

// Owns one blocking IPv4 socket on the loopback.
class PlainSocket {
 public:
  PlainSocket() = default;
  explicit PlainSocket(int fd) : fd_(fd) {}
  ~PlainSocket() { close(); }
  PlainSocket(PlainSocket&& other) noexcept;
  PlainSocket& operator=(PlainSocket&& other) noexcept;

  // Port 0: any free one.
  static PlainSocket udp(unsigned short port = 0);
  static PlainSocket tcp_listener(unsigned short port = 0);
  static PlainSocket tcp_connect(unsigned short port);

  PlainSocket accept(int ms = 10000);
  void connect(unsigned short port);
  bool send(const std::string& bytes) const;
  bool send_to(unsigned short port, const std::string& bytes) const;
  // One datagram, or what the stream has; "" after `ms` milliseconds, and at the end of the stream.
  std::string receive(int ms = 10000) const;
  std::string receive_from(unsigned short& port, int ms = 10000) const;
  bool is_readable(int ms) const;
  // Ends a stream with a reset instead of an end of file.
  void reset();
  void close();
  // Gives the descriptor away.
  int release();

  int fd() const { return fd_; }
  unsigned short port() const;

 private:
  int fd_ = -1;
};

// A port that is free for UDP and TCP, outside of the range from which the system takes any.
unsigned short free_port();

int open_descriptors();
// What the system calls the file behind a descriptor; "" for none.
std::string file_of(int fd);
double process_cpu_seconds();

// Returns when the I/O thread has gone through at least one pass that began after the call, so that
// what was ready then has been told. Needs a running I/O thread.
void io_thread_pass();

// While it lives the process can open no descriptor.
class DescriptorShortage {
 public:
  DescriptorShortage();
  ~DescriptorShortage();
  DescriptorShortage(const DescriptorShortage&) = delete;
  DescriptorShortage& operator=(const DescriptorShortage&) = delete;

 private:
  unsigned long limit_;
};

// Counts events; the static functions are the callbacks, the counter their argument.
class EventCounter {
 public:
  static void on_event(void* counter);
  static void on_error(int error, void* counter);

  int count() const { return count_; }
  int error() const { return error_; }
  std::thread::id thread() const;
  bool wait_for(int count) const;

 private:
  std::atomic<int> count_{0};
  std::atomic<int> error_{-1};
  mutable std::mutex guard_;
  std::thread::id thread_;
};

// Collects the handles that a listener hands over, and destroys them at its end.
class NewHandles {
 public:
  static void on_new(void* io, void* handles);
  NewHandles() = default;
  ~NewHandles();
  NewHandles(const NewHandles&) = delete;
  NewHandles& operator=(const NewHandles&) = delete;

  std::vector<void*> all() const;
  size_t count() const { return all().size(); }
  void* at(size_t index) const { return all().at(index); }
  bool wait_for(size_t count) const;
  std::thread::id thread() const;

 private:
  mutable std::mutex guard_;
  std::vector<void*> handles_;
  std::thread::id thread_;
};

// A UDP handle, its peer, and the port that the peer sees.
struct UdpPair {
  UdpPair();
  ~UdpPair();
  UdpPair(const UdpPair&) = delete;
  UdpPair& operator=(const UdpPair&) = delete;

  // From the peer to the handle.
  void send(const std::string& bytes) const { EXPECT_TRUE(peer.send_to(io_port, bytes)); }

  PlainSocket peer = PlainSocket::udp();
  void* io;
  unsigned short io_port = 0;
};

// The library with its worker and its I/O thread running, on the real clock.
class SocketFixture : public ::testing::Test {
 protected:
  SocketFixture();
};

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_PLAIN_SOCKET_H_
