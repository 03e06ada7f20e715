#ifndef TARN_TOOLS_PEER_SESSION_H_
#define TARN_TOOLS_PEER_SESSION_H_

#include <tarn/tarn.h>

#include <memory>
#include <optional>
#include <string>

#include "tools/outcome.h"
#include "tools/output_channel.h"

namespace tarn_tool {

// A session of the library, and what its error callback has told. One thread.
class PeerSession {
 public:
  // Messages go to `on_reliable` and `on_unreliable` with `user`, inside tarn_input(), on whatever
  // thread that is called. Conversation id 0 takes over the peer's.
  PeerSession(std::shared_ptr<OutputChannel> channel, unsigned conv, TarnDataCallback on_reliable,
              TarnDataCallback on_unreliable, void* user);
  ~PeerSession();
  PeerSession(const PeerSession&) = delete;
  PeerSession& operator=(const PeerSession&) = delete;

  void* handle() const { return handle_; }

  void send(std::string message);
  void send_unreliable(std::string message);
  // Says that this end is alive.
  void send_alive();

  // Waits for acknowledgement of everything, at most `limit_ms`, and ends the session.
  void drain(unsigned limit_ms);

  // True when the library has heard nothing, and sent nothing, for the timeout.
  bool is_inactive() const { return channel_->inactive; }
  // Why it cannot go on with `peer`; nothing while it can.
  std::optional<Outcome> problem(const std::string& peer) const;

 private:
  const std::shared_ptr<OutputChannel> channel_;
  void* handle_;  // null when drained
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_PEER_SESSION_H_
