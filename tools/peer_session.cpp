#include "tools/peer_session.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "tools/transfer_message.h"

namespace tarn_tool {
namespace {

int on_output(char* data, int len, void* user) {
  const auto channel = OutputChannel::find(user);
  if (channel) channel->send({data, static_cast<std::size_t>(len)});
  return 0;
}

int on_error(TarnError code, void* user) {
  const auto channel = OutputChannel::find(user);
  if (!channel) return 0;
  switch (code) {
    case TARN_ERROR_BYE:
      channel->peer_left = true;
      break;
    case TARN_ERROR_MESSAGE_TOO_LARGE:
      channel->flooded = true;
      break;
    case TARN_ERROR_RECV_REJECTED:
      break;  // it comes again
    case TARN_ERROR_INACTIVE:
      break;  // the main loop may only be late: it looks by itself
    case TARN_ERROR_SEND_OVERFLOW:
    case TARN_ERROR_UNREACHABLE:
      break;  // nothing here leads to these
  }
  return 0;
}

}  // namespace

PeerSession::PeerSession(std::shared_ptr<OutputChannel> channel, unsigned conv,
                         const SessionSettings& settings, std::chrono::milliseconds keep_alive,
                         const Callbacks& callbacks)
    : channel_(std::move(channel)), handle_(tarn_create()) {
  tarn_set_conv(handle_, conv);
  tarn_set_profile(handle_, TARN_PROFILE_BULK);
  tarn_set_option(handle_, TARN_OPTION_SEND_WINDOW, settings.window);
  tarn_set_option(handle_, TARN_OPTION_RECV_WINDOW, settings.window);
  tarn_set_option(handle_, TARN_OPTION_MAX_MESSAGE, kMaxHelloMtu);
  tarn_set_option(handle_, TARN_OPTION_KEEP_ALIVE_MS, keep_alive.count());
  tarn_set_output_callback(handle_, on_output, channel_->user());
  tarn_set_error_callback(handle_, on_error, channel_->user());
  // These run where the session is fed or resumed, so they may hold the user's address.
  tarn_set_recv_reliable_callback(handle_, callbacks.reliable, callbacks.user);
  tarn_set_recv_unreliable_callback(handle_, callbacks.unreliable, callbacks.user);
  tarn_set_writable_callback(handle_, callbacks.writable, callbacks.user);
}

PeerSession::~PeerSession() { tarn_wait_destroy(handle_, 0); }

bool PeerSession::send(const std::string& message) {
  if (!is_writable_) return false;
  is_writable_ = tarn_try_send_reliable(handle_, message.data(), message.size()) == 0;
  return is_writable_;
}

void PeerSession::send_unreliable(std::string message) {
  tarn_send_unreliable(handle_, message.data(), static_cast<int>(message.size()));
}

void PeerSession::limit_to(std::uint32_t peer_window) {
  tarn_set_option(handle_, TARN_OPTION_PEER_WINDOW, std::min(peer_window, kMaxWindow));
}

void PeerSession::pause(bool on) { tarn_pause_receive(handle_, on ? 1 : 0); }

TarnStats PeerSession::stats() const {
  TarnStats stats = {};
  tarn_get_stats(handle_, &stats, sizeof stats);
  return stats;
}

std::size_t PeerSession::undelivered() const {
  const TarnStats now = stats();
  return std::size_t{now.queued_bytes} + now.outstanding_bytes;
}

std::chrono::milliseconds PeerSession::silence() const {
  return std::chrono::milliseconds(stats().since_received_ms);
}

std::optional<Outcome> PeerSession::problem(const std::string& peer) const {
  if (channel_->flooded) return Outcome{kPeerEnded, fmt::format("{} sent too much", peer), true};
  if (channel_->peer_left) return Outcome{kPeerEnded, fmt::format("{} has left", peer), false};
  return std::nullopt;
}

}  // namespace tarn_tool
