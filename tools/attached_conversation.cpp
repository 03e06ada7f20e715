#include "tools/attached_conversation.h"

#include <fmt/format.h>
#include <tarn/io.h>

#include <utility>

namespace tarn_tool {

AttachedConversation::AttachedConversation(void* io, std::string peer, unsigned conv,
                                           const SessionSettings& settings)
    : Conversation(std::move(peer), settings),
      session_(OutputChannel::open(nullptr, std::nullopt), conv, settings, kSignSpan,
               {on_reliable, on_unreliable, on_writable, this}),
      io_(io) {
  tarn_attach_io(session_.handle(), io_);
}

// The socket first: when that has returned, the I/O thread is done with the session's callbacks.
AttachedConversation::~AttachedConversation() { tarn_destroy_io(io_); }

int AttachedConversation::on_reliable(char* data, int len, void* self) {
  auto* const conversation = static_cast<AttachedConversation*>(self);
  const auto size = static_cast<std::size_t>(len);
  const bool is_full = conversation->mailbox_.is_filled_by(size);
  if (is_full) conversation->session_.pause(true);
  conversation->mailbox_.post({data, size}, Channel::kReliable);
  if (is_full) conversation->mailbox_.note_full();
  return 0;
}

int AttachedConversation::on_unreliable(char* data, int len, void* self) {
  static_cast<AttachedConversation*>(self)->mailbox_.post({data, static_cast<std::size_t>(len)},
                                                          Channel::kUnreliable);
  return 0;
}

void AttachedConversation::on_writable(void*, void* self) {
  static_cast<AttachedConversation*>(self)->mailbox_.note_writeable();
}

void AttachedConversation::take_in() {
  const Mailbox::Content content = mailbox_.take();
  flooded_ = flooded_ || content.flooded;
  if (content.writeable) session_.note_writable();
  for (const Mailbox::Item& item : content.items) deliver(item.bytes, item.channel);
  if (content.full && !is_paused_) session_.pause(false);
}

void AttachedConversation::pause(bool on) {
  is_paused_ = on;
  session_.pause(on);
}

std::optional<Outcome> AttachedConversation::problem() const {
  if (flooded_) return Outcome{kPeerEnded, fmt::format("{} sent too much", peer()), true};
  return session_.problem(peer());
}

}  // namespace tarn_tool
