#include "tools/conversation.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "tools/terminal.h"
#include "tools/transfer_message.h"

namespace tarn_tool {
namespace {

// Ten farewells in 200 ms: with one datagram in ten lost, all of them get lost once in 10^10 times.
constexpr int kFarewells = 10;
constexpr std::chrono::milliseconds kFarewellSpan{20};

// The library writes its own prefix in front of an unreliable message that it does not copy.
constexpr std::size_t kPrefixSize = 12;

// The same for every setting, since the peer's patience is not known here: the shortest timeout
// still sees several signs.
constexpr std::chrono::milliseconds kSignSpan{100};

}  // namespace

Conversation::Conversation(std::shared_ptr<UdpSocket> socket, const std::optional<PeerAddress>& to,
                           std::string peer, unsigned conv, const SessionSettings& settings)
    : settings_(settings),
      channel_(OutputChannel::open(std::move(socket), to)),
      peer_(std::move(peer)),
      session_(tarn_create()) {
  tarn_set_conv(session_, conv);
  tarn_set_output_callback(session_, on_output, channel_->user());
  tarn_set_error_callback(session_, on_error, channel_->user());
  // These two run inside input() alone, so they may hold the object itself.
  tarn_set_recv_reliable_callback(session_, on_reliable, this);
  tarn_set_recv_unreliable_callback(session_, on_unreliable, this);
}

Conversation::~Conversation() { tarn_destroy(session_); }

int Conversation::on_output(char* data, int len, void* user) {
  const auto channel = OutputChannel::find(user);
  if (channel) channel->send({data, static_cast<std::size_t>(len)});
  return 0;
}

int Conversation::on_error(TarnError code, void* user) {
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
  }
  return 0;
}

int Conversation::on_reliable(char* data, int len, void* user) {
  static_cast<Conversation*>(user)->handler_({data, static_cast<std::size_t>(len)},
                                             Channel::kReliable);
  return 0;
}

int Conversation::on_unreliable(char* data, int len, void* user) {
  static_cast<Conversation*>(user)->handler_({data, static_cast<std::size_t>(len)},
                                             Channel::kUnreliable);
  return 0;
}

unsigned Conversation::room() const {
  return settings_.window - std::min(settings_.window, ledger_.outstanding());
}

void Conversation::send(std::string message) {
  ledger_.sent();
  tarn_send_reliable(session_, message.data(), static_cast<int>(message.size()));
}

void Conversation::input(char* datagram, std::size_t size, TimePoint now) {
  last_heard_ = now;
  tarn_input(session_, datagram, static_cast<int>(size));
  ledger_.received({datagram, size});
}

void Conversation::tick(TimePoint now) {
  if (now < next_sign_) return;
  if (farewell_.empty()) {
    send_alive();
    next_sign_ = now + kSignSpan;
  } else if (farewells_left_ > 0) {
    std::string message = farewell_;
    tarn_send_unreliable(session_, message.data(), static_cast<int>(message.size()));
    --farewells_left_;
    next_sign_ = now + kFarewellSpan;
  }
}

// Without a copy, because that form does not count as activity: what this end says must not hide
// from the library that the other one is silent.
void Conversation::send_alive() {
  const std::string message = encode(Alive{});
  std::string buffer = std::string(kPrefixSize, '\0') + message;
  tarn_send_unreliable_nocp(session_, buffer.data(), static_cast<int>(message.size()));
}

void Conversation::part(const std::string& reason, TimePoint now) {
  farewell_ = encode(Abort{reason});
  farewells_left_ = kFarewells;
  next_sign_ = now;
}

std::optional<Outcome> Conversation::trouble(TimePoint now) const {
  if (channel_->overflowed) return Outcome{kFailure, "the send window is full", true};
  if (channel_->peer_left) return Outcome{kPeerEnded, fmt::format("{} has left", peer_), false};
  // The library's report comes when this end, too, had nothing to send; an end that keeps sending
  // has to look at the clock itself.
  if (channel_->inactive || now - last_heard_ > settings_.timeout) {
    return Outcome{kPeerSilent, silence_text(), true};
  }
  return std::nullopt;
}

std::string Conversation::silence_text() const {
  const int error = channel_->last_error();
  return fmt::format("nothing heard from {} for {} ms{}", peer_, settings_.timeout.count(),
                     error == 0 ? "" : fmt::format(" ({})", std::strerror(error)));
}

}  // namespace tarn_tool
