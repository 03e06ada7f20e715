#ifndef TARN_TOOLS_ATTACHED_CONVERSATION_H_
#define TARN_TOOLS_ATTACHED_CONVERSATION_H_

#include <string>

#include "tools/conversation.h"
#include "tools/mailbox.h"
#include "tools/peer_session.h"

namespace tarn_tool {

// A session whose datagrams go through a socket of the library. Messages arrive on the I/O thread
// and wait in a mailbox for the main loop.
//
// Nobody but the session sees the acknowledgements, so there is no ledger: what is under way is
// bounded by the receiver's credit, and the send window is several times as large (see
// start_library()).
class AttachedConversation : public Conversation {
 public:
  // An attached handle cuts datagrams to 1500 bytes, of which the library's own take up to 14.
  static constexpr std::size_t kMaxMessage = 1486;

  // Takes over `io`.
  AttachedConversation(void* io, std::string peer, unsigned conv, const SessionSettings& settings);
  ~AttachedConversation() override;

  int fd() const override { return mailbox_.fd(); }
  void take_in() override;
  unsigned room() const override { return settings().window; }
  void send(std::string message) override { session_.send(std::move(message)); }
  // Waits for the acknowledgements, for up to two seconds.
  bool delivered() override;
  std::size_t max_message() const override { return kMaxMessage; }

 private:
  static int on_reliable(char* data, int len, void* user);
  static int on_unreliable(char* data, int len, void* user);
  void send_sign() override { session_.send_alive(); }
  void send_farewell(const std::string& message) override { session_.send_unreliable(message); }
  bool is_inactive() const override { return session_.is_inactive(); }
  std::optional<Outcome> problem() const override;

  Mailbox mailbox_;
  PeerSession session_;
  void* const io_;
  bool flooded_ = false;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_ATTACHED_CONVERSATION_H_
