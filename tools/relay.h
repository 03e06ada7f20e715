#ifndef TARN_TOOLS_RELAY_H_
#define TARN_TOOLS_RELAY_H_

#include <poll.h>

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <queue>
#include <string>
#include <string_view>
#include <vector>

#include "tools/clock.h"
#include "tools/link_impairment.h"
#include "tools/peer_address.h"
#include "tools/udp_socket.h"

namespace tarn_tool {

// What happened to the datagrams of one direction.
struct RelayCounts {
  std::uint64_t received = 0;
  std::uint64_t lost = 0;
  std::uint64_t queue_full = 0;
  std::uint64_t duplicated = 0;
  std::uint64_t reordered = 0;
  std::uint64_t forwarded = 0;  // copies sent on
  std::uint64_t bytes = 0;      // in those copies

  void add(const RelayCounts& other);
  std::string text() const;
};

// Passes datagrams between any number of clients and one server, each client's over a link and from
// a port of its own. One thread.
class Relay {
 public:
  Relay(std::shared_ptr<UdpSocket> listener, const PeerAddress& server,
        const LinkSettings& settings, std::uint64_t seed);

  // Waits at most `patience` for datagrams or for one to be due, then passes on what there is.
  // Returns whether anything arrived.
  bool turn(Microseconds patience);

  // Datagrams that are on their way.
  std::size_t held() const { return held_.size(); }

  // The sum over all clients, of the way to the server and of the way back, in lines.
  std::string report() const;

 private:
  enum Direction : std::uint32_t { kToServer = 0, kToClient = 1 };

  struct Client {
    PeerAddress address;
    std::shared_ptr<UdpSocket> upstream;
    std::array<LinkImpairment, 2> links;
    std::array<RelayCounts, 2> counts;
    TimePoint last_heard;
  };
  struct Held {
    Microseconds due;
    std::uint64_t order;  // of arrival, among those that are due at once
    std::shared_ptr<Client> client;
    Direction direction;
    std::string bytes;
  };
  struct Later {
    bool operator()(const Held& a, const Held& b) const;
  };

  Microseconds now() const;
  std::vector<pollfd> polls() const;
  bool take_from_clients();
  bool take_from_server(const std::shared_ptr<Client>& client);
  std::shared_ptr<Client> client_at(const PeerAddress& address);
  void forget_quietest_client();
  void pass(const std::shared_ptr<Client>& client, Direction direction, std::string_view datagram);
  void hold(const std::shared_ptr<Client>& client, Direction direction, Microseconds due,
            std::string_view datagram);
  void deliver_due();
  void deliver(const Held& held);

  const std::shared_ptr<UdpSocket> listener_;
  const PeerAddress server_;
  const LinkSettings settings_;
  const std::uint64_t seed_;
  const TimePoint start_ = Clock::now();
  std::map<PeerAddress, std::shared_ptr<Client>> clients_;
  std::uint32_t client_count_ = 0;  // ever, for the seed and the report
  std::array<RelayCounts, 2> forgotten_;
  std::priority_queue<Held, std::vector<Held>, Later> held_;
  std::uint64_t held_bytes_ = 0;
  std::uint64_t next_order_ = 0;
  std::vector<char> buffer_;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_RELAY_H_
