#ifndef TARN_TOOLS_CONVERSATION_H_
#define TARN_TOOLS_CONVERSATION_H_

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "tools/clock.h"
#include "tools/outcome.h"
#include "tools/session_settings.h"
#include "tools/transfer_message.h"

namespace tarn_tool {

// Messages to and from one peer, whatever carries them. Keeps the peer informed that this end is
// alive, and notices when the peer is not.
// One thread, which must not destroy the object inside its handler.
class Conversation {
 public:
  enum class Channel { kReliable, kUnreliable };
  // Gets each message; the bytes are good until it returns.
  using Handler = std::function<void(std::string_view bytes, Channel channel)>;

  virtual ~Conversation() = default;
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;

  void set_handler(Handler handler) { handler_ = std::move(handler); }

  // An input of its own to be watched, -1 for none, and what to call when it is ready.
  virtual int fd() const { return -1; }
  virtual void take_in() {}

  // Reliable messages that may be sent now.
  virtual unsigned room() const = 0;
  // Requires: room() is not 0; the message has 1 to mtu bytes.
  virtual void send(std::string message) = 0;
  // True when the peer has all that was sent. Nothing may be sent any more.
  virtual bool delivered() = 0;
  // Bytes in the largest message that can be received.
  virtual std::size_t max_message() const { return kMaxHelloMtu; }

  // No signs of life before the peer has been heard. A listener takes every datagram that comes
  // before it has a socket for the peer as another peer: a sender begins with one message alone.
  void wait_for_peer() { waits_for_peer_ = true; }
  bool is_answered() const { return is_answered_; }

  // Sends what is due: a sign of life, or the next farewell. Call at least every 20 ms.
  void tick(TimePoint now);

  // Tells the peer `reason` for leaving, several times over and past whatever is stuck.
  void part(const std::string& reason, TimePoint now);
  // True when the last farewell has been sent.
  bool parted() const { return !farewell_.empty() && farewells_left_ == 0; }

  // True when a peer that has come to its end needs no more answers.
  virtual bool may_close(TimePoint now) const;
  // Why the conversation cannot go on; nothing while it can. Call after every waiting message has
  // been taken in.
  std::optional<Outcome> trouble(TimePoint now) const;

  const std::string& peer() const { return peer_; }

 protected:
  // `peer` names the peer to people.
  Conversation(std::string peer, const SessionSettings& settings)
      : settings_(settings), peer_(std::move(peer)) {}

  void heard(TimePoint now) {
    last_heard_ = now;
    is_answered_ = true;
  }
  void deliver(std::string_view bytes, Channel channel) { handler_(bytes, channel); }
  const SessionSettings& settings() const { return settings_; }

 private:
  virtual void send_sign() = 0;
  virtual void send_farewell(const std::string& message) = 0;
  // What went wrong, apart from the peer's silence.
  virtual std::optional<Outcome> problem() const = 0;
  // The library's own report of silence. It comes when this end, too, had nothing to send, so the
  // clock is looked at as well.
  virtual bool is_inactive() const { return false; }
  // Something to add to a complaint about silence; may be empty.
  virtual std::string last_error() const { return ""; }

  const SessionSettings settings_;
  const std::string peer_;
  Handler handler_;
  TimePoint last_heard_ = Clock::now();
  bool waits_for_peer_ = false;
  bool is_answered_ = false;
  TimePoint next_sign_;
  std::string farewell_;
  int farewells_left_ = 0;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_CONVERSATION_H_
