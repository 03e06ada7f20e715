#ifndef TARN_TOOLS_DATAGRAM_CONVERSATION_H_
#define TARN_TOOLS_DATAGRAM_CONVERSATION_H_

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/conversation.h"
#include "tools/peer_session.h"
#include "tools/udp_socket.h"

namespace tarn_tool {

// A session that the tool feeds itself, from a socket of its own or from one that many share.
class DatagramConversation : public Conversation {
 public:
  // On a socket that is connected to the peer, and read here.
  DatagramConversation(std::shared_ptr<UdpSocket> socket, std::string peer, unsigned conv,
                       const SessionSettings& settings);
  // Sends from `socket` to `to`; somebody else reads.
  DatagramConversation(std::shared_ptr<UdpSocket> socket, const PeerAddress& to, unsigned conv,
                       const SessionSettings& settings);

  // One datagram of `size` bytes from the peer.
  void input(char* datagram, std::size_t size);

  int fd() const override { return own_socket_ ? own_socket_->fd() : -1; }
  void take_in() override;

  bool send(const std::string& message) override { return session_.send(message); }
  std::size_t undelivered() const override { return session_.undelivered(); }
  void limit_to(std::uint32_t peer_window) override { session_.limit_to(peer_window); }
  void pause(bool on) override { session_.pause(on); }

 private:
  DatagramConversation(std::shared_ptr<OutputChannel> channel, std::string peer, unsigned conv,
                       const SessionSettings& settings);
  static int on_reliable(char* data, int len, void* user);
  static int on_unreliable(char* data, int len, void* user);
  static void on_writable(void* session, void* user);
  void send_farewell(const std::string& message) override { session_.send_unreliable(message); }
  std::chrono::milliseconds silence() const override { return session_.silence(); }
  std::optional<Outcome> problem() const override { return session_.problem(peer()); }
  std::string last_error() const override;

  const std::shared_ptr<OutputChannel> channel_;
  PeerSession session_;
  std::shared_ptr<UdpSocket> own_socket_;
  std::vector<char> buffer_;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_DATAGRAM_CONVERSATION_H_
