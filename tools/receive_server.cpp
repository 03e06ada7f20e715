#include "tools/receive_server.h"

#include <fmt/format.h>
#include <tarn/tarn.h>

#include <algorithm>

#include "tools/datagram.h"
#include "tools/interrupt.h"
#include "tools/terminal.h"

namespace tarn_tool {
namespace {

constexpr std::size_t kMaxClients = 64;
constexpr std::chrono::milliseconds kTick{20};
// Datagrams taken in before the conversations get their turn.
constexpr int kBatch = 512;
// A sender repeats its last message until it is acknowledged; silence for a few of those rounds
// says that it was.
constexpr std::chrono::milliseconds kLinger{600};
constexpr std::chrono::seconds kMaxMemory{60};

// True for the reliable message number 0 that greets a receiver.
bool opens_transfer(std::string_view datagram) {
  DatagramReader reader(datagram);
  Segment segment;
  while (reader.next(segment)) {
    if (segment.type != kReliable || !segment_problem(segment).empty()) continue;
    const auto message = parse_message(segment.body.substr(2));
    return segment.flag == kWhole && read_u16(segment.body) == 0 && message &&
           std::holds_alternative<Hello>(*message);
  }
  return false;
}

}  // namespace

ReceiveServer::ReceiveServer(std::shared_ptr<UdpSocket> socket, Options options)
    : socket_(std::move(socket)), options_(std::move(options)), buffer_(UdpSocket::kMaxDatagram) {}

int ReceiveServer::run() {
  while (interrupted_by() == 0) {
    turn();
    if (options_.once && served_ && clients_.empty()) return status_;
  }
  interrupt();
  return status_;
}

void ReceiveServer::turn() {
  auto ready = polls();
  wait_ready(ready, kTick);
  take_datagrams();
  const TimePoint now = Clock::now();
  for (auto& entry : clients_) look_after(entry.second, now);
  forget_the_gone(now);
  show_status(now);
}

std::vector<pollfd> ReceiveServer::polls() const {
  std::vector<pollfd> polls{{socket_->fd(), POLLIN, 0}};
  for (const auto& entry : clients_) {
    const int fd = entry.second.receiver ? entry.second.receiver->waiting_fd() : -1;
    if (fd >= 0) polls.push_back({fd, POLLOUT, 0});
  }
  return polls;
}

void ReceiveServer::take_datagrams() {
  PeerAddress from;
  for (int i = 0; i < kBatch; ++i) {
    const auto size = socket_->receive(buffer_.data(), buffer_.size(), from);
    if (!size) return;
    route(buffer_.data(), *size, from);
  }
}

void ReceiveServer::route(char* datagram, std::size_t size, const PeerAddress& from) {
  const int length = static_cast<int>(size);
  if (tarn_check_packet(datagram, length) < 0) return;
  const Key key(from, tarn_read_packet_conv(datagram, length));
  if (key.second == 0) return;
  Client* client = client_for(key, {datagram, size});
  if (client != nullptr) client->conversation->input(datagram, size, Clock::now());
}

ReceiveServer::Client* ReceiveServer::client_for(const Key& key, std::string_view datagram) {
  const auto known = clients_.find(key);
  if (known != clients_.end()) return &known->second;
  // A sender that finds no place greets again until it does, or until its patience is over.
  if (ended_.count(key) != 0 || clients_.size() >= kMaxClients || !opens_transfer(datagram)) {
    return nullptr;
  }
  return &admit(key);
}

ReceiveServer::Client& ReceiveServer::admit(const Key& key) {
  Client& client = clients_[key];
  client.conversation = std::make_unique<Conversation>(socket_, key.first, key.first.text(),
                                                       key.second, options_.settings);
  if (options_.once && served_) {
    client.conversation->set_handler([](std::string_view, Conversation::Channel) {});
    client.conversation->part("serving another sender", Clock::now());
    client.stage = Stage::kParting;
    return client;
  }
  served_ = true;
  client.receiver =
      std::make_unique<FileReceiver>(*client.conversation, options_.output, options_.settings,
                                     [this](const std::string& line) { report(line); });
  FileReceiver* const receiver = client.receiver.get();
  client.conversation->set_handler(
      [receiver](std::string_view bytes, Conversation::Channel channel) {
        receiver->on_message(bytes, channel);
      });
  return client;
}

void ReceiveServer::look_after(Client& client, TimePoint now) {
  client.conversation->tick(now);
  if (client.stage == Stage::kParting && client.conversation->parted()) client.stage = Stage::kOver;
  if (client.stage == Stage::kLingering && now - client.conversation->last_heard() > kLinger) {
    client.stage = Stage::kOver;
  }
  if (client.stage != Stage::kActive) return;
  client.receiver->pump(now);
  const auto& outcome = client.receiver->outcome();
  const auto trouble = outcome ? std::nullopt : client.conversation->trouble(now);
  if (outcome) conclude(client, *outcome, now);
  if (trouble) conclude(client, *trouble, now);
}

void ReceiveServer::conclude(Client& client, const Outcome& outcome, TimePoint now) {
  // Only a sender that came to its end still waits for an acknowledgement.
  client.stage = outcome.tell_peer      ? Stage::kParting
                 : outcome.text.empty() ? Stage::kLingering
                                        : Stage::kOver;
  if (outcome.tell_peer) client.conversation->part(outcome.text, now);
  if (!outcome.text.empty()) {
    status_line_.clear();
    say(stderr, fmt::format("tarn: {}", outcome.text));
  }
  if (status_ == kSuccess) status_ = outcome.status;
}

void ReceiveServer::forget_the_gone(TimePoint now) {
  for (auto entry = clients_.begin(); entry != clients_.end();) {
    if (entry->second.stage == Stage::kOver) {
      ended_[entry->first] = now;
      entry = clients_.erase(entry);
    } else {
      ++entry;
    }
  }
  for (auto entry = ended_.begin(); entry != ended_.end();) {
    entry = now - entry->second > kMaxMemory ? ended_.erase(entry) : std::next(entry);
  }
}

void ReceiveServer::interrupt() {
  const bool cut_short =
      options_.once || std::any_of(clients_.begin(), clients_.end(), [](const auto& entry) {
        return entry.second.stage == Stage::kActive;
      });
  status_line_.clear();
  if (cut_short) {
    say(stderr, "tarn: interrupted");
    status_ = kInterrupted + interrupted_by();
  }
  part_from_all();
}

void ReceiveServer::part_from_all() {
  const TimePoint start = Clock::now();
  for (auto& entry : clients_) {
    if (entry.second.stage != Stage::kActive) continue;
    entry.second.stage = Stage::kParting;
    entry.second.conversation->part("interrupted", start);
  }
  const auto parting = [](const auto& entry) { return entry.second.stage == Stage::kParting; };
  while (std::any_of(clients_.begin(), clients_.end(), parting)) {
    std::vector<pollfd> nothing;
    wait_ready(nothing, kTick);
    const TimePoint now = Clock::now();
    for (auto& entry : clients_) look_after(entry.second, now);
  }
}

void ReceiveServer::show_status(TimePoint now) {
  if (!status_line_.due(now)) return;
  std::string line;
  for (auto& entry : clients_) {
    const std::string text =
        entry.second.receiver ? entry.second.receiver->status_text(now) : std::string();
    if (!text.empty()) line += (line.empty() ? "" : " | ") + text;
  }
  if (!line.empty()) status_line_.show(line, now);
}

void ReceiveServer::report(const std::string& line) {
  status_line_.clear();
  say(options_.output == "-" ? stderr : stdout, line);
}

}  // namespace tarn_tool
