// ENet, whose sockets are replaced by memory: this program's definitions of its socket functions
// take the place of the library's.
#include <benchmark/benchmark.h>
#include <enet/enet.h>

#include <string.h>

#include <algorithm>
#include <array>
#include <vector>

#include "bench/datagram_queue.h"
#include "bench/message_bench.h"

namespace {

// What has been sent to each of the two sockets, whose numbers are also their addresses.
struct Network {
  std::array<bench::DatagramQueue, 2> arrived;
  int sockets = 0;
  long datagrams = 0;
};

Network network;

size_t index_of(ENetSocket socket) { return static_cast<size_t>(socket); }

ENetAddress address_of(size_t index) {
  ENetAddress address = {};
  address.host = static_cast<enet_uint32>(index + 1);
  address.port = static_cast<enet_uint16>(index + 1);
  return address;
}

}  // namespace

extern "C" {

ENetSocket enet_socket_create(ENetSocketType) { return network.sockets++; }

void enet_socket_destroy(ENetSocket) {
  if (--network.sockets == 0) network = Network();
}

int enet_socket_bind(ENetSocket, const ENetAddress*) { return 0; }

int enet_socket_set_option(ENetSocket, ENetSocketOption, int) { return 0; }

int enet_socket_get_address(ENetSocket socket, ENetAddress* address) {
  *address = address_of(index_of(socket));
  return 0;
}

// Nothing arrives by waiting.
int enet_socket_wait(ENetSocket, enet_uint32* condition, enet_uint32) {
  *condition = ENET_SOCKET_WAIT_NONE;
  return 0;
}

int enet_socket_send(ENetSocket, const ENetAddress* to, const ENetBuffer* buffers, size_t count) {
  size_t size = 0;
  for (size_t i = 0; i < count; ++i) size += buffers[i].dataLength;
  char* at = network.arrived[to->host - 1].push(size);
  for (size_t i = 0; i < count; ++i) {
    memcpy(at, buffers[i].data, buffers[i].dataLength);
    at += buffers[i].dataLength;
  }
  ++network.datagrams;
  return static_cast<int>(size);
}

int enet_socket_receive(ENetSocket socket, ENetAddress* from, ENetBuffer* buffers, size_t) {
  const size_t index = index_of(socket);
  if (network.arrived[index].empty()) return 0;
  const std::vector<char>& datagram = network.arrived[index].pop();
  *from = address_of(1 - index);
  const size_t size = std::min(datagram.size(), buffers[0].dataLength);
  memcpy(buffers[0].data, datagram.data(), size);
  return static_cast<int>(size);
}

}  // extern "C"

namespace bench {
namespace {

// Two hosts with one peer each, at ENet's default settings. ENet acknowledges with a datagram of
// its own, inside the call that receives.
class Enet {
 public:
  Enet() {
    enet_initialize();
    for (size_t i = 0; i < hosts_.size(); ++i) {
      const ENetAddress address = address_of(i);
      hosts_[i] = enet_host_create(&address, 1, 1, 0, 0);
    }
    const ENetAddress address = address_of(1);
    peers_[0] = enet_host_connect(hosts_[0], &address, 1, 0);
    for (int round = 0; round < kRounds; ++round) {
      for (size_t i = 0; i < hosts_.size(); ++i) service(i);
    }
  }
  ~Enet() {
    for (ENetHost* host : hosts_) enet_host_destroy(host);
    enet_deinitialize();
  }
  Enet(const Enet&) = delete;
  Enet& operator=(const Enet&) = delete;

  void exchange(const std::vector<char>& message) {
    for (size_t from = 0; from < hosts_.size(); ++from) {
      if (peers_[from] == nullptr) return;
      ENetPacket* const packet =
          enet_packet_create(message.data(), message.size(), ENET_PACKET_FLAG_RELIABLE);
      if (enet_peer_send(peers_[from], 0, packet) != 0) enet_packet_destroy(packet);
      enet_host_flush(hosts_[from]);
      service(1 - from);
    }
  }

  bool has_delivered(long messages, size_t size) {
    for (size_t i = 0; i < hosts_.size(); ++i) service(i);
    for (const ENetPeer* peer : peers_) {
      if (peer == nullptr || peer->reliableDataInTransit != 0) return false;
    }
    // Fewer datagrams than messages: it has found sockets of its own.
    return received_.is(messages, size) && network.datagrams >= messages;
  }

 private:
  static constexpr int kRounds = 10;  // more than connecting takes

  void service(size_t i) {
    ENetEvent event;
    while (enet_host_service(hosts_[i], &event, 0) > 0) {
      if (event.type == ENET_EVENT_TYPE_CONNECT) peers_[i] = event.peer;
      if (event.type != ENET_EVENT_TYPE_RECEIVE) continue;
      received_.add(event.packet->dataLength);
      enet_packet_destroy(event.packet);
    }
  }

  std::array<ENetHost*, 2> hosts_ = {};
  std::array<ENetPeer*, 2> peers_ = {};
  Received received_;
};
BENCHMARK_TEMPLATE(Message, Enet)->Apply(three_sizes);

}  // namespace
}  // namespace bench
