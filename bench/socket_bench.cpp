// Datagrams through the library's sockets, beside the same datagrams with nothing but system calls.
// In both, one thread sends a burst over loopback and waits until the other one has taken it.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "tarn/io.h"
#include "tarn/tarn.h"

namespace {

constexpr int kBurst = 16;
constexpr int kPatienceMs = 1000;
constexpr size_t kMaxDatagram = 1500;

struct Address {
  sockaddr_in in = {};
  unsigned short port() const { return ntohs(in.sin_port); }
};

// A non-blocking UDP socket on a free port of loopback.
int open_socket(Address& address) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  address.in.sin_family = AF_INET;
  address.in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address.in;
  bind(fd, reinterpret_cast<sockaddr*>(&address.in), size);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address.in), &size);
  return fd;
}

void connect_to(int fd, const Address& peer) {
  connect(fd, reinterpret_cast<const sockaddr*>(&peer.in), sizeof peer.in);
}

int count_message(char*, int, void* count) {
  ++*static_cast<std::atomic<long>*>(count);
  return 0;
}

// Waits until `count` is `expected`. False when it does not get there.
bool wait_for(const std::atomic<long>& count, long expected) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
  while (count < expected) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

// Two sessions, each attached to a socket of the library; the I/O thread feeds both.
class AttachedPair {
 public:
  AttachedPair() {
    tarn_init();
    std::array<Address, 2> addresses;
    std::array<int, 2> fds = {open_socket(addresses[0]), open_socket(addresses[1])};
    for (size_t i = 0; i < 2; ++i) {
      connect_to(fds[i], addresses[1 - i]);
      ios_[i] = tarn_create_io_from_fd(fds[i]);
      sessions_[i] = tarn_create();
      tarn_set_conv(sessions_[i], 1);
      tarn_set_recv_unreliable_callback(sessions_[i], count_message, &received());
      tarn_attach_io(sessions_[i], ios_[i]);
    }
  }
  ~AttachedPair() {
    for (void* io : ios_) tarn_destroy_io(io);
    for (void* session : sessions_) tarn_destroy(session);
  }
  AttachedPair(const AttachedPair&) = delete;
  AttachedPair& operator=(const AttachedPair&) = delete;

  bool exchange(std::vector<char>& message) {
    const long expected = received() + kBurst;
    for (int i = 0; i < kBurst; ++i) {
      tarn_send_unreliable(sessions_[0], message.data(), static_cast<int>(message.size()));
    }
    return wait_for(received(), expected);
  }

 private:
  // Lives for ever: the I/O thread may still be counting.
  static std::atomic<long>& received() {
    static auto& count = *new std::atomic<long>(0);
    return count;
  }

  std::array<void*, 2> ios_ = {};
  std::array<void*, 2> sessions_ = {};
};

// The least that could be done: a thread that polls, and receives one datagram per turn.
class BarePair {
 public:
  BarePair() {
    std::array<Address, 2> addresses;
    for (size_t i = 0; i < 2; ++i) fds_[i] = open_socket(addresses[i]);
    for (size_t i = 0; i < 2; ++i) connect_to(fds_[i], addresses[1 - i]);
    reader_ = std::thread([this] { read(); });
  }
  ~BarePair() {
    stopped_ = true;
    send(fds_[0], "", 1, 0);
    reader_.join();
    for (const int fd : fds_) close(fd);
  }
  BarePair(const BarePair&) = delete;
  BarePair& operator=(const BarePair&) = delete;

  bool exchange(std::vector<char>& message) {
    const long expected = received_ + kBurst;
    for (int i = 0; i < kBurst; ++i) send(fds_[0], message.data(), message.size(), 0);
    return wait_for(received_, expected);
  }

 private:
  void read() {
    char datagram[kMaxDatagram];
    while (!stopped_) {
      pollfd ready = {fds_[1], POLLIN, 0};
      poll(&ready, 1, kPatienceMs);
      if (recv(fds_[1], datagram, sizeof datagram, 0) > 0) ++received_;
    }
  }

  std::array<int, 2> fds_ = {};
  std::atomic<bool> stopped_{false};
  std::atomic<long> received_{0};
  std::thread reader_;
};

template <typename Pair>
void Datagrams(benchmark::State& state) {
  Pair pair;
  std::vector<char> message(static_cast<size_t>(state.range(0)), 'x');
  for (auto _ : state) {
    if (pair.exchange(message)) continue;
    state.SkipWithError("datagrams were lost");
    break;
  }
  state.SetItemsProcessed(kBurst * static_cast<long>(state.iterations()));
}
BENCHMARK_TEMPLATE(Datagrams, BarePair)->Arg(64)->Arg(1024)->UseRealTime();
BENCHMARK_TEMPLATE(Datagrams, AttachedPair)->Arg(64)->Arg(1024)->UseRealTime();

}  // namespace
