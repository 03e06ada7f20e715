// Datagrams through the library's sockets, beside the same datagrams with nothing but system calls.
// In both, one thread sends a burst over loopback and waits until the other one has taken it.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "bench/arrivals.h"
#include "bench/attached_session.h"
#include "bench/one_cpu.h"
#include "bench/repetitions.h"
#include "bench/settings.h"
#include "bench/udp_socket.h"
#include "bench/worker.h"
#include "tarn/tarn.h"

namespace bench {
namespace {

constexpr long kBurst = 32;  // fits into a socket's buffer
constexpr int kPatienceMs = 1000;

// Two sessions, each attached to a socket of the library; the I/O thread feeds both.
class AttachedPair {
 public:
  AttachedPair() {
    Settings().apply();
    tarn_init();
    std::array<UdpSocket, 2> sockets;
    for (size_t i = 0; i < 2; ++i) sockets[i].connect(sockets[1 - i]);
    for (size_t i = 0; i < 2; ++i) {
      sessions_[i] = std::make_unique<AttachedSession>(sockets[i], arrivals_);
    }
  }
  ~AttachedPair() {
    for (auto& session : sessions_) session.reset();
    wait_for_worker();
  }

  Arrivals& arrivals() { return arrivals_; }

  void send(std::vector<char>& message) {
    tarn_send_unreliable(sessions_[0]->handle(), message.data(), static_cast<int>(message.size()));
  }

 private:
  Arrivals arrivals_;
  std::array<std::unique_ptr<AttachedSession>, 2> sessions_;
};

// The least that could be done: a thread that polls, and receives one datagram per turn.
class BarePair {
 public:
  BarePair() {
    for (size_t i = 0; i < 2; ++i) sockets_[i].connect(sockets_[1 - i]);
    reader_ = std::thread([this] { read(); });
  }
  ~BarePair() {
    stopped_ = true;
    ::send(sockets_[0].fd(), "", 1, 0);
    reader_.join();
  }
  BarePair(const BarePair&) = delete;
  BarePair& operator=(const BarePair&) = delete;

  Arrivals& arrivals() { return arrivals_; }

  void send(std::vector<char>& message) {
    ::send(sockets_[0].fd(), message.data(), message.size(), 0);
  }

 private:
  void read() {
    char datagram[kMaxDatagram];
    while (!stopped_) {
      pollfd ready = {sockets_[1].fd(), POLLIN, 0};
      poll(&ready, 1, kPatienceMs);
      if (recv(sockets_[1].fd(), datagram, sizeof datagram, 0) > 0) arrivals_.add();
    }
  }

  std::array<UdpSocket, 2> sockets_;
  std::atomic<bool> stopped_{false};
  Arrivals arrivals_;
  std::thread reader_;
};

template <typename Pair>
void Datagram(benchmark::State& state) {
  const OneCpu here;
  Pair pair;
  std::vector<char> message(static_cast<size_t>(state.range(0)), 'x');
  while (state.KeepRunningBatch(kBurst)) {
    pair.arrivals().expect(kBurst);
    for (long i = 0; i < kBurst; ++i) pair.send(message);
    if (pair.arrivals().wait()) continue;
    state.SkipWithError("datagrams were lost");
    break;
  }
}
BENCHMARK_TEMPLATE(Datagram, BarePair)->Arg(64)->Arg(1024)->Apply(with_all_threads);
BENCHMARK_TEMPLATE(Datagram, AttachedPair)->Arg(64)->Arg(1024)->Apply(with_all_threads);

int keep_datagram(char* data, int len, void* kept) {
  static_cast<std::vector<char>*>(kept)->assign(data, data + len);
  return 0;
}

// As a session frames an unreliable message.
std::vector<char> framed_message(size_t size) {
  std::vector<char> message(size, 'x');
  std::vector<char> datagram;
  void* const session = tarn_create();
  tarn_set_conv(session, 1);
  tarn_set_output_callback(session, keep_datagram, &datagram);
  tarn_send_unreliable(session, message.data(), static_cast<int>(size));
  tarn_destroy(session);
  wait_for_worker();
  return datagram;
}

// Sessions, each with a socket of its own, and one bare socket that sends to the first of them, as
// many as are active, in turn.
class ManySockets {
 public:
  ManySockets(size_t count, size_t active) {
    Settings().apply();
    tarn_init();
    datagram_ = framed_message(64);
    for (size_t i = 0; i < count; ++i) {
      UdpSocket socket;
      if (i < active) targets_.push_back(socket.address());
      sessions_.push_back(std::make_unique<AttachedSession>(socket, arrivals_));
    }
    wait_for_worker();
  }
  ~ManySockets() {
    sessions_.clear();
    wait_for_worker();
  }

  Arrivals& arrivals() { return arrivals_; }

  void send() {
    const sockaddr_in& to = targets_[next_++ % targets_.size()];
    sendto(sender_.fd(), datagram_.data(), datagram_.size(), 0,
           reinterpret_cast<const sockaddr*>(&to), sizeof to);
  }

 private:
  UdpSocket sender_;
  std::vector<char> datagram_;
  std::vector<sockaddr_in> targets_;
  size_t next_ = 0;
  Arrivals arrivals_;
  std::vector<std::unique_ptr<AttachedSession>> sessions_;
};

void ReceivedDatagram(benchmark::State& state) {
  const OneCpu here;
  ManySockets sockets(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)));
  while (state.KeepRunningBatch(kBurst)) {
    sockets.arrivals().expect(kBurst);
    for (long i = 0; i < kBurst; ++i) sockets.send();
    if (sockets.arrivals().wait()) continue;
    state.SkipWithError("datagrams were lost");
    break;
  }
}
BENCHMARK(ReceivedDatagram)
    ->ArgNames({"sockets", "active"})
    ->Args({1, 1})
    ->Args({1000, 1000})
    ->Args({1000, 1})
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Apply(times<32 * 500>);

}  // namespace
}  // namespace bench
