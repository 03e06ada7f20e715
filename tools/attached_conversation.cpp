#include "tools/attached_conversation.h"

#include <fmt/format.h>
#include <tarn/io.h>

#include <utility>

namespace tarn_tool {
namespace {

constexpr unsigned kDrainMs = 2000;

}  // namespace

AttachedConversation::AttachedConversation(void* io, std::string peer, unsigned conv,
                                           const SessionSettings& settings)
    : Conversation(std::move(peer), settings),
      session_(OutputChannel::open(nullptr, std::nullopt), conv, on_reliable, on_unreliable,
               &mailbox_),
      io_(io) {
  tarn_attach_io(session_.handle(), io_);
}

// The socket first: when that has returned, the I/O thread is done with the session's callbacks.
AttachedConversation::~AttachedConversation() { tarn_destroy_io(io_); }

int AttachedConversation::on_reliable(char* data, int len, void* user) {
  static_cast<Mailbox*>(user)->post({data, static_cast<std::size_t>(len)}, Channel::kReliable);
  return 0;
}

int AttachedConversation::on_unreliable(char* data, int len, void* user) {
  static_cast<Mailbox*>(user)->post({data, static_cast<std::size_t>(len)}, Channel::kUnreliable);
  return 0;
}

void AttachedConversation::take_in() {
  const Mailbox::Content content = mailbox_.take();
  flooded_ = flooded_ || content.flooded;
  if (!content.items.empty()) heard(Clock::now());
  for (const Mailbox::Item& item : content.items) deliver(item.bytes, item.channel);
}

bool AttachedConversation::delivered() {
  session_.drain(kDrainMs);
  return true;
}

std::optional<Outcome> AttachedConversation::problem() const {
  if (flooded_) return Outcome{kPeerEnded, fmt::format("{} sent too much", peer()), true};
  return session_.problem(peer());
}

}  // namespace tarn_tool
