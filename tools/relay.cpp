#include "tools/relay.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "tools/interrupt.h"
#include "tools/terminal.h"

namespace tarn_tool {
namespace {

constexpr std::size_t kMaxClients = 256;
// What the delay may hold; beyond it datagrams are dropped as by a full queue.
constexpr std::uint64_t kMaxHeldBytes = 64 << 20;
// Datagrams that one socket may bring before the others get their turn.
constexpr int kBatch = 256;

}  // namespace

void RelayCounts::add(const RelayCounts& other) {
  received += other.received;
  lost += other.lost;
  queue_full += other.queue_full;
  duplicated += other.duplicated;
  reordered += other.reordered;
  forwarded += other.forwarded;
  bytes += other.bytes;
}

std::string RelayCounts::text() const {
  return fmt::format(
      "received {}, lost {}, dropped by the queue {}, duplicated {}, reordered {}, forwarded {} "
      "({} bytes)",
      received, lost, queue_full, duplicated, reordered, forwarded, bytes);
}

bool Relay::Later::operator()(const Held& a, const Held& b) const {
  return a.due != b.due ? a.due > b.due : a.order > b.order;
}

Relay::Relay(std::shared_ptr<UdpSocket> listener, const PeerAddress& server,
             const LinkSettings& settings, std::uint64_t seed)
    : listener_(std::move(listener)),
      server_(server),
      settings_(settings),
      seed_(seed),
      buffer_(UdpSocket::kMaxDatagram) {}

Microseconds Relay::now() const {
  return std::chrono::duration_cast<Microseconds>(Clock::now() - start_);
}

bool Relay::turn(Microseconds patience) {
  Microseconds wait = patience;
  if (!held_.empty()) wait = std::clamp(held_.top().due - now(), Microseconds(0), patience);
  auto ready = polls();
  wait_ready(ready, wait);
  bool arrived = false;
  // In the order of polls(), and before the listener, which may add and forget clients.
  std::size_t index = 1;
  for (const auto& entry : clients_) {
    if (ready[index++].revents != 0) arrived |= take_from_server(entry.second);
  }
  if (ready[0].revents != 0) arrived |= take_from_clients();
  deliver_due();
  return arrived;
}

std::vector<pollfd> Relay::polls() const {
  std::vector<pollfd> polls{{listener_->fd(), POLLIN, 0}};
  for (const auto& entry : clients_) polls.push_back({entry.second->upstream->fd(), POLLIN, 0});
  return polls;
}

bool Relay::take_from_clients() {
  bool arrived = false;
  PeerAddress from;
  for (int i = 0; i < kBatch; ++i) {
    const auto size = listener_->receive(buffer_.data(), buffer_.size(), from);
    if (!size) break;
    arrived = true;
    const auto client = client_at(from);
    if (client) pass(client, kToServer, {buffer_.data(), *size});
  }
  return arrived;
}

bool Relay::take_from_server(const std::shared_ptr<Client>& client) {
  bool arrived = false;
  PeerAddress from;
  for (int i = 0; i < kBatch; ++i) {
    const auto size = client->upstream->receive(buffer_.data(), buffer_.size(), from);
    if (!size) break;
    arrived = true;
    pass(client, kToClient, {buffer_.data(), *size});
  }
  return arrived;
}

std::shared_ptr<Relay::Client> Relay::client_at(const PeerAddress& address) {
  const auto known = clients_.find(address);
  if (known != clients_.end()) return known->second;
  if (clients_.size() >= kMaxClients) forget_quietest_client();
  std::string error;
  auto upstream = UdpSocket::connect(server_, error);
  if (!upstream) {
    say(stderr, fmt::format("tarn: {}", error));
    return nullptr;
  }
  const std::uint32_t number = client_count_++;
  auto client =
      std::make_shared<Client>(Client{address,
                                      std::move(upstream),
                                      {LinkImpairment(settings_, seed_, number, kToServer),
                                       LinkImpairment(settings_, seed_, number, kToClient)},
                                      {},
                                      Clock::now()});
  clients_.emplace(address, client);
  return client;
}

void Relay::forget_quietest_client() {
  const auto quietest = std::min_element(
      clients_.begin(), clients_.end(),
      [](const auto& a, const auto& b) { return a.second->last_heard < b.second->last_heard; });
  for (const Direction direction : {kToServer, kToClient}) {
    forgotten_[direction].add(quietest->second->counts[direction]);
  }
  clients_.erase(quietest);
}

void Relay::pass(const std::shared_ptr<Client>& client, Direction direction,
                 std::string_view datagram) {
  client->last_heard = Clock::now();
  RelayCounts& counts = client->counts[direction];
  ++counts.received;
  const auto verdict = client->links[direction].pass(now(), datagram.size());
  const std::uint64_t copies = verdict.duplicated ? 2 : 1;
  if (verdict.fate == LinkImpairment::Fate::kLost) {
    ++counts.lost;
    return;
  }
  if (verdict.fate == LinkImpairment::Fate::kQueueFull ||
      held_bytes_ + copies * datagram.size() > kMaxHeldBytes) {
    ++counts.queue_full;
    return;
  }
  if (verdict.duplicated) ++counts.duplicated;
  if (verdict.reordered) ++counts.reordered;
  for (std::uint64_t i = 0; i < copies; ++i) hold(client, direction, verdict.due, datagram);
}

void Relay::hold(const std::shared_ptr<Client>& client, Direction direction, Microseconds due,
                 std::string_view datagram) {
  held_bytes_ += datagram.size();
  held_.push({due, next_order_++, client, direction, std::string(datagram)});
}

void Relay::deliver_due() {
  const Microseconds current = now();
  while (!held_.empty() && held_.top().due <= current) {
    deliver(held_.top());
    held_bytes_ -= held_.top().bytes.size();
    held_.pop();
  }
}

void Relay::deliver(const Held& held) {
  if (held.direction == kToServer) {
    held.client->upstream->send(held.bytes);
  } else {
    listener_->send_to(held.bytes, held.client->address);
  }
  RelayCounts& counts = held.client->counts[held.direction];
  ++counts.forwarded;
  counts.bytes += held.bytes.size();
}

std::string Relay::report() const {
  std::array<RelayCounts, 2> total = forgotten_;
  for (const auto& entry : clients_) {
    for (const Direction direction : {kToServer, kToClient}) {
      total[direction].add(entry.second->counts[direction]);
    }
  }
  return fmt::format("relayed {} client{}\n  to the server: {}\n  to the clients: {}",
                     client_count_, client_count_ == 1 ? "" : "s", total[kToServer].text(),
                     total[kToClient].text());
}

}  // namespace tarn_tool
