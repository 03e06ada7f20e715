#ifndef TARN_TOOLS_ATTACHED_CONVERSATION_H_
#define TARN_TOOLS_ATTACHED_CONVERSATION_H_

#include <string>

#include "tools/conversation.h"
#include "tools/mailbox.h"
#include "tools/peer_session.h"

namespace tarn_tool {

// A session whose datagrams go through a socket of the library. Messages arrive on the I/O thread
// and wait in a mailbox for the main loop; when that is full the session is paused.
class AttachedConversation : public Conversation {
 public:
  // An attached handle cuts datagrams to 1500 bytes, of which the library's own take up to 14.
  static constexpr std::size_t kMaxMessage = 1486;

  // Takes over `io`.
  AttachedConversation(void* io, std::string peer, unsigned conv, const SessionSettings& settings);
  ~AttachedConversation() override;

  int fd() const override { return mailbox_.fd(); }
  void take_in() override;
  bool send(const std::string& message) override { return session_.send(message); }
  std::size_t undelivered() const override { return session_.undelivered(); }
  void limit_to(std::uint32_t peer_window) override { session_.limit_to(peer_window); }
  void pause(bool on) override;
  std::size_t max_message() const override { return kMaxMessage; }

 private:
  static int on_reliable(char* data, int len, void* self);
  static int on_unreliable(char* data, int len, void* self);
  static void on_writable(void* session, void* self);
  void send_farewell(const std::string& message) override { session_.send_unreliable(message); }
  std::chrono::milliseconds silence() const override { return session_.silence(); }
  std::optional<Outcome> problem() const override;

  Mailbox mailbox_;
  PeerSession session_;
  void* const io_;
  bool is_paused_ = false;  // by the main loop
  bool flooded_ = false;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_ATTACHED_CONVERSATION_H_
