#ifndef TARN_TOOLS_STREAM_CONVERSATION_H_
#define TARN_TOOLS_STREAM_CONVERSATION_H_

#include <string>

#include "tools/conversation.h"
#include "tools/mailbox.h"

namespace tarn_tool {

// The same messages over a TCP connection of the library: four bytes of length, big-endian, in
// front of each. There is no session; the I/O thread cuts the stream into messages and puts them
// into a mailbox, the main loop writes.
//
// A handle reads whatever comes, so TCP holds nobody up here. Instead each end reports the bytes
// that it has taken: a length of 0, and their number in four bytes more. 0 of them are a sign of
// life.
class StreamConversation : public Conversation {
 public:
  // Takes over `io`, connected or still connecting.
  StreamConversation(void* io, std::string peer, const SessionSettings& settings);
  ~StreamConversation() override;

  int fd() const override { return mailbox_.fd(); }
  void take_in() override;
  bool send(const std::string& message) override;
  // The peer closes the connection when it has read everything.
  std::size_t undelivered() const override { return closed_ ? 0 : untaken_; }
  void pause(bool on) override;
  bool may_close() const override { return unsent_.empty() || closed_; }

 private:
  static void on_readable(void* self);
  static void on_writeable(void* self);
  static void on_error(int error, void* self);
  // I/O thread only. False when the stream has ended, or makes no sense.
  bool cut_messages();
  void take(const Mailbox::Item& item);
  void report_taken();
  void flush();
  void send_sign() override;
  void send_farewell(const std::string& message) override;
  std::chrono::milliseconds silence() const override;
  std::optional<Outcome> problem() const override;

  Mailbox mailbox_;
  std::size_t leftover_ = 0;  // bytes of an unfinished message in the handle, I/O thread only
  void* const io_;
  std::string unsent_;
  std::size_t untaken_ = 0;     // bytes of messages sent that the peer has not reported
  std::size_t unreported_ = 0;  // bytes of messages taken
  bool is_paused_ = false;
  bool may_write_ = false;  // a writeable event has come and was not used up
  bool was_connected_ = false;
  bool closed_ = false;
  bool flooded_ = false;
  bool said_farewell_ = false;
  TimePoint last_heard_ = Clock::now();
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_STREAM_CONVERSATION_H_
