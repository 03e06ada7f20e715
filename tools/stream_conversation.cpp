#include "tools/stream_conversation.h"

#include <fmt/format.h>
#include <tarn/io.h>

#include <algorithm>
#include <utility>

#include "tools/datagram.h"

namespace tarn_tool {
namespace {

constexpr std::size_t kLengthSize = 4;
// Bytes of messages that the peer need not have taken.
constexpr std::size_t kMaxUntaken = 1 << 20;
constexpr std::size_t kMaxWrite = 256 << 10;

std::string number(std::size_t value) {
  std::string bytes;
  for (std::size_t i = kLengthSize; i-- > 0;) bytes += static_cast<char>(value >> (8 * i) & 0xff);
  return bytes;
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
  const auto size = static_cast<std::size_t>(tarn_peek_size(io_));
  if (size == leftover_) return false;
  std::string_view left(tarn_peek(io_), size);
  while (left.size() >= kLengthSize) {
    const std::size_t length = read_u32(left);
    if (length > kMaxHelloMtu) return false;
    const bool is_report = length == 0;
    const std::size_t body = is_report ? kLengthSize : length;
    if (left.size() < kLengthSize + body) break;
    // A report is nobody's message, but has the same way to go.
    mailbox_.post(left.substr(kLengthSize, body),
                  is_report ? Channel::kUnreliable : Channel::kReliable);
    left.remove_prefix(kLengthSize + body);
  }
  leftover_ = left.size();
  if (leftover_ < size) tarn_consume(io_, static_cast<int>(size - leftover_));
  return true;
}

void StreamConversation::take_in() {
  const Mailbox::Content content = mailbox_.take();
  if (!content.items.empty()) last_heard_ = Clock::now();
  flooded_ = flooded_ || content.flooded;
  may_write_ = may_write_ || content.writeable;
  for (const Mailbox::Item& item : content.items) take(item);
  if (unreported_ > 0 && !is_paused_) report_taken();
  if (content.writeable && !content.closed) was_connected_ = true;
  closed_ = closed_ || content.closed;
  flush();
}

void StreamConversation::take(const Mailbox::Item& item) {
  if (item.channel == Channel::kUnreliable) {
    untaken_ -= std::min<std::size_t>(untaken_, read_u32(item.bytes));
    return;
  }
  unreported_ += item.bytes.size();
  flooded_ = flooded_ || unreported_ > kMaxUntaken + kMaxHelloMtu;
  deliver(item.bytes, item.channel);
}

void StreamConversation::report_taken() {
  unsent_ += number(0) + number(std::exchange(unreported_, 0));
  flush();
}

void StreamConversation::pause(bool on) {
  is_paused_ = on;
  if (!on && unreported_ > 0) report_taken();
}

bool StreamConversation::send(const std::string& message) {
  if (untaken_ >= kMaxUntaken) return false;
  untaken_ += message.size();
  unsent_ += number(message.size()) + message;
  flush();
  return true;
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
  if (!unsent_.empty() || !was_connected_) return;
  unsent_ = number(0) + number(0);
  flush();
}

// Once is enough here; what is stuck before it is given time by the repetitions.
void StreamConversation::send_farewell(const std::string& message) {
  if (!std::exchange(said_farewell_, true)) unsent_ += number(message.size()) + message;
  flush();
}

std::chrono::milliseconds StreamConversation::silence() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - last_heard_);
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
