#ifndef TARN_TOOLS_OUTPUT_CHANNEL_H_
#define TARN_TOOLS_OUTPUT_CHANNEL_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "tools/peer_address.h"
#include "tools/udp_socket.h"

namespace tarn_tool {

// The part of a conversation that the library's worker thread touches: where datagrams go, and what
// went wrong. Any thread may call in.
//
// A callback can still be under way while its session is destroyed, so sessions do not get the
// channel's address but its number, which is looked up for each call.
class OutputChannel {
 public:
  // `to` is where to send; nothing when the socket is connected. Without a socket, for a session
  // whose datagrams take another way, nothing is sent.
  static std::shared_ptr<OutputChannel> open(std::shared_ptr<UdpSocket> socket,
                                             const std::optional<PeerAddress>& to);
  // The channel of a session's `user` pointer, or null when it is gone.
  static std::shared_ptr<OutputChannel> find(void* user);
  ~OutputChannel();
  OutputChannel(const OutputChannel&) = delete;
  OutputChannel& operator=(const OutputChannel&) = delete;

  // The channel's number in the form that a session takes.
  void* user() const;

  void send(std::string_view datagram);
  int last_error() const { return socket_ ? socket_->last_error() : 0; }

  std::atomic<bool> peer_left{false};  // the peer said bye
  std::atomic<bool> flooded{false};    // a message was longer than any of the protocol

 private:
  OutputChannel(std::shared_ptr<UdpSocket> socket, const std::optional<PeerAddress>& to);

  const std::shared_ptr<UdpSocket> socket_;
  const std::optional<PeerAddress> to_;
  const std::uintptr_t number_;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_OUTPUT_CHANNEL_H_
