// usrsctp over addresses of the kind AF_CONN, which have no sockets: datagrams go out by a callback
// and come in by a call.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <usrsctp.h>

#include <stdlib.h>
#include <string.h>

#include <array>
#include <vector>

#include "bench/datagram_queue.h"
#include "bench/message_bench.h"

namespace bench {
namespace {

constexpr uint16_t kPort = 5000;

// Two associated sockets at usrsctp's default settings, but for Nagle's algorithm and its checksum,
// for which the other transports have none of their own. Its timers stand still: nothing is lost.
class Usrsctp {
 public:
  Usrsctp() {
    init();
    for (size_t i = 0; i < ends_.size(); ++i) {
      ends_[i].peer = &ends_[1 - i];
      usrsctp_register_address(&ends_[i]);
      ends_[i].socket =
          usrsctp_socket(AF_CONN, SOCK_STREAM, IPPROTO_SCTP, receive, nullptr, 0, &received_);
      usrsctp_set_non_blocking(ends_[i].socket, 1);
      const int on = 1;
      usrsctp_setsockopt(ends_[i].socket, IPPROTO_SCTP, SCTP_NODELAY, &on, sizeof on);
      sockaddr_conn local = address_of(ends_[i]);
      usrsctp_bind(ends_[i].socket, reinterpret_cast<sockaddr*>(&local), sizeof local);
    }
    for (End& end : ends_) {
      sockaddr_conn remote = address_of(end);
      usrsctp_connect(end.socket, reinterpret_cast<sockaddr*>(&remote), sizeof remote);
    }
    pump();
  }
  ~Usrsctp() {
    for (End& end : ends_) usrsctp_close(end.socket);
    pump();
    for (End& end : ends_) usrsctp_deregister_address(&end);
  }
  Usrsctp(const Usrsctp&) = delete;
  Usrsctp& operator=(const Usrsctp&) = delete;

  void exchange(const std::vector<char>& message) {
    for (End& end : ends_) {
      const ssize_t sent = usrsctp_sendv(end.socket, message.data(), message.size(), nullptr, 0,
                                         nullptr, 0, SCTP_SENDV_NOINFO, 0);
      // Refused also when its buffer is full, that is when acknowledgements did not come.
      if (sent != static_cast<ssize_t>(message.size())) ++refused_;
      pump();
    }
  }

  bool has_delivered(long messages, size_t size) const {
    return received_.is(messages, size) && refused_ == 0;
  }

 private:
  struct End {
    struct socket* socket = nullptr;
    End* peer = nullptr;
    DatagramQueue outgoing;
  };

  // Never finished: that waits for addresses which only its timers give up.
  static void init() {
    static const bool initialised = [] {
      usrsctp_init_nothreads(0, send_datagram, nullptr);
      usrsctp_enable_crc32c_offload();
      return true;
    }();
    benchmark::DoNotOptimize(initialised);
  }

  // Of the end and, as seen from it, of its peer: what comes in by an address is taken as sent from
  // that address too.
  static sockaddr_conn address_of(End& end) {
    sockaddr_conn address = {};
    address.sconn_family = AF_CONN;
    address.sconn_port = htons(kPort);
    address.sconn_addr = &end;
    return address;
  }

  // Runs under the sender's locks, so that the peer cannot be fed from here.
  static int send_datagram(void* end, void* datagram, size_t size, uint8_t, uint8_t) {
    memcpy(static_cast<End*>(end)->outgoing.push(size), datagram, size);
    return 0;
  }

  static int receive(struct socket*, sctp_sockstore, void* data, size_t size, sctp_rcvinfo,
                     int flags, void* received) {
    if (data == nullptr) return 1;
    auto& count = *static_cast<Received*>(received);
    if ((flags & MSG_NOTIFICATION) == 0) {
      count.bytes += size;
      if ((flags & MSG_EOR) != 0) ++count.messages;
    }
    free(data);
    return 1;
  }

  // Feeds both ends until nothing is under way.
  void pump() {
    while (!ends_[0].outgoing.empty() || !ends_[1].outgoing.empty()) {
      for (End& end : ends_) {
        while (!end.outgoing.empty()) {
          const std::vector<char>& datagram = end.outgoing.pop();
          usrsctp_conninput(end.peer, datagram.data(), datagram.size(), 0);
        }
      }
    }
  }

  std::array<End, 2> ends_;
  Received received_;
  long refused_ = 0;
};
BENCHMARK_TEMPLATE(Message, Usrsctp)->Apply(three_sizes);

}  // namespace
}  // namespace bench
