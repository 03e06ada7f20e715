#include "tools/stream_conversation.h"

#include <fmt/format.h>
#include <tarn/io.h>

#include <algorithm>
#include <utility>

#include "tools/datagram.h"

namespace tarn_tool {
namespace {

constexpr std::size_t kLengthSize = 4;
// What may wait for the connection before the sender pauses.
constexpr std::size_t kMaxUnsent = 1 << 20;
constexpr std::size_t kMaxWrite = 256 << 10;

std::string framed(const std::string& message) {
  std::string bytes;
  for (std::size_t i = kLengthSize; i-- > 0;) {
    bytes += static_cast<char>(message.size() >> (8 * i) & 0xff);
  }
  return bytes + message;
}

}  // namespace

StreamConversation::StreamConversation(void* io, std::string peer, const SessionSettings& settings)
    : Conversation(std::move(peer), settings), io_(io) {
  tarn_set_io_error_callback(io_, on_error, &mailbox_);
  tarn_set_readable_callback(io_, on_readable, this);
  tarn_set_writeable_callback(io_, on_writeable, &mailbox_);
}

// When this has returned, no callback uses the object any more.
StreamConversation::~StreamConversation() { tarn_destroy_io(io_); }

void StreamConversation::on_writeable(void* mailbox) {
  static_cast<Mailbox*>(mailbox)->note_writeable();
}

// The code is of no use: it is that of an error before the callback was set.
void StreamConversation::on_error(int, void* mailbox) {
  static_cast<Mailbox*>(mailbox)->note_closed();
}

void StreamConversation::on_readable(void* self) {
  auto* const conversation = static_cast<StreamConversation*>(self);
  if (!conversation->cut_messages()) conversation->mailbox_.note_closed();
}

bool StreamConversation::cut_messages() {
  std::size_t left = static_cast<std::size_t>(tarn_peek_size(io_));
  if (left == leftover_) return false;
  const std::string_view stream(tarn_peek(io_), left);
  std::size_t at = 0;
  while (left >= kLengthSize) {
    const std::size_t length = read_u32(stream.substr(at));
    if (length == 0 || length > kMaxHelloMtu) return false;
    if (left < kLengthSize + length) break;
    mailbox_.post(stream.substr(at + kLengthSize, length), Channel::kReliable);
    at += kLengthSize + length;
    left -= kLengthSize + length;
  }
  if (at > 0) tarn_consume(io_, static_cast<int>(at));
  leftover_ = left;
  return true;
}

void StreamConversation::take_in() {
  const Mailbox::Content content = mailbox_.take();
  if (!content.items.empty()) heard(Clock::now());
  flooded_ = flooded_ || content.flooded;
  may_write_ = may_write_ || content.writeable;
  for (const Mailbox::Item& item : content.items) deliver(item.bytes, item.channel);
  if (content.writeable && !content.closed) was_connected_ = true;
  closed_ = closed_ || content.closed;
  flush();
}

unsigned StreamConversation::room() const {
  return unsent_.size() < kMaxUnsent ? settings().window : 0;
}

void StreamConversation::send(std::string message) {
  unsent_ += framed(message);
  flush();
}

// What the socket does not take now waits for the next writeable event. That is asked for here, on
// the main loop: asked for inside the callback, it would be lost.
void StreamConversation::flush() {
  while (may_write_ && !closed_ && !unsent_.empty()) {
    const std::size_t size = std::min(unsent_.size(), kMaxWrite);
    const int written = tarn_write(io_, unsent_.data(), static_cast<int>(size));
    if (written > 0) unsent_.erase(0, static_cast<std::size_t>(written));
    if (written == static_cast<int>(size)) continue;
    may_write_ = false;
    tarn_set_writeable_callback(io_, on_writeable, &mailbox_);
  }
}

void StreamConversation::send_sign() {
  if (unsent_.empty() && was_connected_) send(encode(Alive{}));
}

// Once is enough here; what is stuck before it is given time by the repetitions.
void StreamConversation::send_farewell(const std::string& message) {
  if (!std::exchange(said_farewell_, true)) send(message);
}

std::optional<Outcome> StreamConversation::problem() const {
  if (flooded_) return Outcome{kPeerEnded, fmt::format("{} sent too much", peer()), true};
  if (!closed_) return std::nullopt;
  if (!was_connected_) {
    return Outcome{kPeerSilent, fmt::format("cannot connect to {}", peer()), false};
  }
  return Outcome{kPeerEnded, fmt::format("{} has closed the connection", peer()), false};
}

}  // namespace tarn_tool
