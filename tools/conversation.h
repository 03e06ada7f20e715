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

// Messages to and from one peer, whatever carries them. Notices when the peer is gone.
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

  // Takes a reliable message of 1 to mtu bytes. False while there is no room: it is not taken.
  virtual bool send(const std::string& message) = 0;
  // Bytes taken that the peer has not confirmed yet.
  virtual std::size_t undelivered() const = 0;
  // The peer keeps so many segments; more need not be under way.
  virtual void limit_to(std::uint32_t) {}
  // Whether the peer's reliable messages are held up. Some may still be delivered then; letting
  // them come again may deliver some before it returns.
  virtual void pause(bool on) = 0;
  // Bytes in the largest message that can be received.
  virtual std::size_t max_message() const { return kMaxHelloMtu; }

  // Sends what is due: a sign of life, or the next farewell. Call at least every 20 ms.
  void tick(TimePoint now);

  // Tells the peer `reason` for leaving, several times over and past whatever is stuck.
  void part(const std::string& reason, TimePoint now);
  // True when the last farewell has been sent.
  bool parted() const { return !farewell_.empty() && farewells_left_ == 0; }

  // True when a peer that has come to its end needs no more answers.
  virtual bool may_close() const;
  // Why the conversation cannot go on; nothing while it can. Call after every waiting message has
  // been taken in.
  std::optional<Outcome> trouble() const;

  const std::string& peer() const { return peer_; }

 protected:
  // The same for every setting, since the peer's patience is not known here: the shortest timeout
  // still sees several signs of life.
  static constexpr std::chrono::milliseconds kSignSpan{100};

  // `peer` names the peer to people.
  Conversation(std::string peer, const SessionSettings& settings)
      : settings_(settings), peer_(std::move(peer)) {}

  void deliver(std::string_view bytes, Channel channel) { handler_(bytes, channel); }
  const SessionSettings& settings() const { return settings_; }

 private:
  // For what has no keep-alive of its own.
  virtual void send_sign() {}
  virtual void send_farewell(const std::string& message) = 0;
  // What went wrong, apart from the peer's silence.
  virtual std::optional<Outcome> problem() const = 0;
  // How long nothing has come from the peer.
  virtual std::chrono::milliseconds silence() const = 0;
  // Something to add to a complaint about silence; may be empty.
  virtual std::string last_error() const { return ""; }

  const SessionSettings settings_;
  const std::string peer_;
  Handler handler_;
  TimePoint next_sign_;
  std::string farewell_;
  int farewells_left_ = 0;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_CONVERSATION_H_
