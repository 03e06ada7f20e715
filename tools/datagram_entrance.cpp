#include "tools/datagram_entrance.h"

#include <algorithm>
#include <iterator>

#include "tools/datagram.h"

namespace tarn_tool {
namespace {

// Datagrams taken in before the conversations get their turn.
constexpr int kBatch = 512;
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

DatagramEntrance::DatagramEntrance(std::shared_ptr<UdpSocket> socket,
                                   const SessionSettings& settings)
    : socket_(std::move(socket)), settings_(settings), buffer_(UdpSocket::kMaxDatagram) {}

void DatagramEntrance::take_in() {
  expire(Clock::now());
  PeerAddress from;
  for (int i = 0; i < kBatch; ++i) {
    const auto size = socket_->receive(buffer_.data(), buffer_.size(), from);
    if (!size) return;
    route(buffer_.data(), *size, from);
  }
}

void DatagramEntrance::route(char* datagram, std::size_t size, const PeerAddress& from) {
  const int length = static_cast<int>(size);
  if (tarn_check_packet(datagram, length) < 0) return;
  const Key key(from, tarn_read_packet_conv(datagram, length));
  if (key.second == 0) return;
  DatagramConversation* const conversation = find_or_open(key, {datagram, size});
  if (conversation != nullptr) conversation->input(datagram, size);
}

DatagramConversation* DatagramEntrance::find_or_open(const Key& key, std::string_view datagram) {
  const auto known = open_.find(key);
  if (known != open_.end()) return known->second;
  // A sender that finds no place greets again until it does, or until its patience is over.
  if (ended_.count(key) != 0 || open_.size() >= kMaxConversations || !opens_transfer(datagram)) {
    return nullptr;
  }
  auto conversation =
      std::make_unique<DatagramConversation>(socket_, key.first, key.second, settings_);
  DatagramConversation* const opened = conversation.get();
  open_[key] = opened;
  admit(std::move(conversation));
  return opened;
}

void DatagramEntrance::forget(const Conversation& conversation, TimePoint now) {
  const auto entry = std::find_if(open_.begin(), open_.end(),
                                  [&](const auto& each) { return each.second == &conversation; });
  if (entry == open_.end()) return;
  ended_[entry->first] = now;
  open_.erase(entry);
}

void DatagramEntrance::expire(TimePoint now) {
  for (auto entry = ended_.begin(); entry != ended_.end();) {
    entry = now - entry->second > kMaxMemory ? ended_.erase(entry) : std::next(entry);
  }
}

}  // namespace tarn_tool
