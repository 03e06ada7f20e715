#ifndef TARN_TOOLS_CONVERSATION_H_
#define TARN_TOOLS_CONVERSATION_H_

#include <tarn/tarn.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tools/clock.h"
#include "tools/outcome.h"
#include "tools/output_channel.h"
#include "tools/send_ledger.h"
#include "tools/session_settings.h"

namespace tarn_tool {

// One session with one peer, fed from the outside. It never overflows its send window, keeps the
// peer informed that this end is alive, and notices when the peer is not.
// One thread, which must not destroy the object inside its handler.
class Conversation {
 public:
  enum class Channel { kReliable, kUnreliable };
  // Gets each message inside input(); the bytes are good until it returns.
  using Handler = std::function<void(std::string_view bytes, Channel channel)>;

  // Sends from `socket`, to `to` unless the socket is connected. `peer` names the peer to people.
  Conversation(std::shared_ptr<UdpSocket> socket, const std::optional<PeerAddress>& to,
               std::string peer, unsigned conv, const SessionSettings& settings);
  ~Conversation();
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;

  void set_handler(Handler handler) { handler_ = std::move(handler); }

  // Reliable messages that may be sent now.
  unsigned room() const;
  unsigned outstanding() const { return ledger_.outstanding(); }
  // Requires: room() is not 0; the message has 1 to mtu bytes.
  void send(std::string message);

  // One datagram of `size` bytes from the peer.
  void input(char* datagram, std::size_t size, TimePoint now);

  // Sends what is due: a sign of life, or the next farewell. Call at least every 20 ms.
  void tick(TimePoint now);

  // Tells the peer `reason` for leaving, several times over and past whatever is stuck.
  void part(const std::string& reason, TimePoint now);
  // True when the last farewell has been sent.
  bool parted() const { return !farewell_.empty() && farewells_left_ == 0; }

  TimePoint last_heard() const { return last_heard_; }
  // Why the conversation cannot go on; nothing while it can. Call after every waiting datagram has
  // been put in.
  std::optional<Outcome> trouble(TimePoint now) const;

  const std::string& peer() const { return peer_; }

 private:
  static int on_output(char* data, int len, void* user);
  static int on_error(TarnError code, void* user);
  static int on_reliable(char* data, int len, void* user);
  static int on_unreliable(char* data, int len, void* user);
  std::string silence_text() const;
  void send_alive();

  const SessionSettings settings_;
  const std::shared_ptr<OutputChannel> channel_;
  const std::string peer_;
  void* const session_;
  Handler handler_;
  SendLedger ledger_;
  TimePoint last_heard_ = Clock::now();
  TimePoint next_sign_;
  std::string farewell_;
  int farewells_left_ = 0;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_CONVERSATION_H_
