#ifndef TARN_TOOLS_PEER_SESSION_H_
#define TARN_TOOLS_PEER_SESSION_H_

#include <tarn/control.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "tools/outcome.h"
#include "tools/output_channel.h"
#include "tools/session_settings.h"

namespace tarn_tool {

// A session of the library, tuned for files, and what its error callback has told. One thread, but
// for its callbacks.
class PeerSession {
 public:
  // They run with `user` inside tarn_input(), on whatever thread that is called, and inside
  // pause().
  struct Callbacks {
    TarnDataCallback reliable;
    TarnDataCallback unreliable;
    TarnWritableCallback writable;  // has to lead to note_writable()
    void* user;
  };

  // Conversation id 0 takes over the peer's.
  PeerSession(std::shared_ptr<OutputChannel> channel, unsigned conv,
              const SessionSettings& settings, std::chrono::milliseconds keep_alive,
              const Callbacks& callbacks);
  ~PeerSession();
  PeerSession(const PeerSession&) = delete;
  PeerSession& operator=(const PeerSession&) = delete;

  void* handle() const { return handle_; }

  // False when there is no room; then nothing is tried again before note_writable().
  bool send(const std::string& message);
  void note_writable() { is_writable_ = true; }
  void send_unreliable(std::string message);
  void limit_to(std::uint32_t peer_window);
  void pause(bool on);

  // Bytes queued or not acknowledged.
  std::size_t undelivered() const;
  // Since the last datagram.
  std::chrono::milliseconds silence() const;
  // Why it cannot go on with `peer`; nothing while it can.
  std::optional<Outcome> problem(const std::string& peer) const;

 private:
  TarnStats stats() const;

  const std::shared_ptr<OutputChannel> channel_;
  void* const handle_;
  bool is_writable_ = true;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_PEER_SESSION_H_
