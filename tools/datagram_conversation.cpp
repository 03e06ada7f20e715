#include "tools/datagram_conversation.h"

#include <cstring>
#include <utility>

namespace tarn_tool {
namespace {

// Datagrams taken in before the next ones are sent.
constexpr int kBatch = 256;

}  // namespace

DatagramConversation::DatagramConversation(std::shared_ptr<OutputChannel> channel, std::string peer,
                                           unsigned conv, const SessionSettings& settings)
    : Conversation(std::move(peer), settings),
      channel_(std::move(channel)),
      session_(channel_, conv, settings, kSignSpan,
               {on_reliable, on_unreliable, on_writable, this}) {}

DatagramConversation::DatagramConversation(std::shared_ptr<UdpSocket> socket, std::string peer,
                                           unsigned conv, const SessionSettings& settings)
    : DatagramConversation(OutputChannel::open(socket, std::nullopt), std::move(peer), conv,
                           settings) {
  own_socket_ = std::move(socket);
  buffer_.resize(UdpSocket::kMaxDatagram);
}

DatagramConversation::DatagramConversation(std::shared_ptr<UdpSocket> socket, const PeerAddress& to,
                                           unsigned conv, const SessionSettings& settings)
    : DatagramConversation(OutputChannel::open(std::move(socket), to), to.text(), conv, settings) {}

int DatagramConversation::on_reliable(char* data, int len, void* user) {
  static_cast<DatagramConversation*>(user)->deliver({data, static_cast<std::size_t>(len)},
                                                    Channel::kReliable);
  return 0;
}

int DatagramConversation::on_unreliable(char* data, int len, void* user) {
  static_cast<DatagramConversation*>(user)->deliver({data, static_cast<std::size_t>(len)},
                                                    Channel::kUnreliable);
  return 0;
}

void DatagramConversation::on_writable(void*, void* user) {
  static_cast<DatagramConversation*>(user)->session_.note_writable();
}

void DatagramConversation::input(char* datagram, std::size_t size) {
  tarn_input(session_.handle(), datagram, static_cast<int>(size));
}

void DatagramConversation::take_in() {
  PeerAddress from;
  for (int i = 0; own_socket_ && i < kBatch; ++i) {
    const auto size = own_socket_->receive(buffer_.data(), buffer_.size(), from);
    if (!size) return;
    input(buffer_.data(), *size);
  }
}

std::string DatagramConversation::last_error() const {
  const int error = channel_->last_error();
  return error == 0 ? "" : std::strerror(error);
}

}  // namespace tarn_tool
