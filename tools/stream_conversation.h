#ifndef TARN_TOOLS_STREAM_CONVERSATION_H_
#define TARN_TOOLS_STREAM_CONVERSATION_H_

#include <string>

#include "tools/conversation.h"
#include "tools/mailbox.h"

namespace tarn_tool {

// The same messages over a TCP connection of the library: four bytes of length, big-endian, in
// front of each. There is no session; the I/O thread cuts the stream into messages and puts them
// into a mailbox, the main loop writes.
class StreamConversation : public Conversation {
 public:
  // Takes over `io`, connected or still connecting.
  StreamConversation(void* io, std::string peer, const SessionSettings& settings);
  ~StreamConversation() override;

  int fd() const override { return mailbox_.fd(); }
  void take_in() override;
  unsigned room() const override;
  void send(std::string message) override;
  // The peer closes the connection when it has read everything.
  bool delivered() override { return closed_; }
  bool may_close(TimePoint) const override { return unsent_.empty() || closed_; }

 private:
  static void on_readable(void* self);
  static void on_writeable(void* self);
  static void on_error(int error, void* self);
  // I/O thread only. False when the stream has ended, or makes no sense.
  bool cut_messages();
  void flush();
  void send_sign() override;
  void send_farewell(const std::string& message) override;
  std::optional<Outcome> problem() const override;

  Mailbox mailbox_;
  std::size_t leftover_ = 0;  // bytes of an unfinished message in the handle, I/O thread only
  void* const io_;
  std::string unsent_;
  bool may_write_ = false;  // a writeable event has come and was not used up
  bool was_connected_ = false;
  bool closed_ = false;
  bool flooded_ = false;
  bool said_farewell_ = false;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_STREAM_CONVERSATION_H_
