#include "tools/peer_session.h"

#include <fmt/format.h>

#include <utility>

#include "tools/transfer_message.h"

namespace tarn_tool {
namespace {

// The library writes its own prefix in front of an unreliable message that it does not copy.
constexpr std::size_t kPrefixSize = 12;

int on_output(char* data, int len, void* user) {
  const auto channel = OutputChannel::find(user);
  if (channel) channel->send({data, static_cast<std::size_t>(len)});
  return 0;
}

int on_error(TarnError code, void* user) {
  const auto channel = OutputChannel::find(user);
  if (!channel) return 0;
  switch (code) {
    case TARN_ERROR_SEND_OVERFLOW:
      channel->overflowed = true;
      break;
    case TARN_ERROR_BYE:
      channel->peer_left = true;
      break;
    case TARN_ERROR_INACTIVE:
      channel->inactive = true;
      break;
    case TARN_ERROR_RECV_REJECTED:
      break;  // it comes again
    case TARN_ERROR_MESSAGE_TOO_LARGE:
    case TARN_ERROR_UNREACHABLE:
      break;  // nobody has asked for these
  }
  return 0;
}

}  // namespace

PeerSession::PeerSession(std::shared_ptr<OutputChannel> channel, unsigned conv,
                         TarnDataCallback on_reliable, TarnDataCallback on_unreliable, void* user)
    : channel_(std::move(channel)), handle_(tarn_create()) {
  tarn_set_conv(handle_, conv);
  tarn_set_output_callback(handle_, on_output, channel_->user());
  tarn_set_error_callback(handle_, on_error, channel_->user());
  // These two run inside tarn_input() alone, so they may hold the user's address.
  tarn_set_recv_reliable_callback(handle_, on_reliable, user);
  tarn_set_recv_unreliable_callback(handle_, on_unreliable, user);
}

PeerSession::~PeerSession() { drain(0); }

void PeerSession::send(std::string message) {
  tarn_send_reliable(handle_, message.data(), static_cast<int>(message.size()));
}

void PeerSession::send_unreliable(std::string message) {
  if (handle_ == nullptr) return;
  tarn_send_unreliable(handle_, message.data(), static_cast<int>(message.size()));
}

// Without a copy, because that form does not count as activity: what this end says must not hide
// from the library that the other one is silent.
void PeerSession::send_alive() {
  if (handle_ == nullptr) return;
  const std::string message = encode(Alive{});
  std::string buffer = std::string(kPrefixSize, '\0') + message;
  tarn_send_unreliable_nocp(handle_, buffer.data(), static_cast<int>(message.size()));
}

void PeerSession::drain(unsigned limit_ms) {
  if (handle_ != nullptr) tarn_wait_destroy(std::exchange(handle_, nullptr), limit_ms);
}

std::optional<Outcome> PeerSession::problem(const std::string& peer) const {
  if (channel_->overflowed) return Outcome{kFailure, "the send window is full", true};
  if (channel_->peer_left) return Outcome{kPeerEnded, fmt::format("{} has left", peer), false};
  return std::nullopt;
}

}  // namespace tarn_tool
