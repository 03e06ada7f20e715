#ifndef TARN_TOOLS_DATAGRAM_ENTRANCE_H_
#define TARN_TOOLS_DATAGRAM_ENTRANCE_H_

#include <map>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/datagram_conversation.h"
#include "tools/entrance.h"

namespace tarn_tool {

// One UDP socket of the tool for all senders: a conversation for each pair of address and
// conversation id, begun by a greeting and by nothing else.
class DatagramEntrance : public Entrance {
 public:
  DatagramEntrance(std::shared_ptr<UdpSocket> socket, const SessionSettings& settings);

  int fd() const override { return socket_->fd(); }
  void take_in() override;
  void forget(const Conversation& conversation, TimePoint now) override;
  unsigned port() const override { return socket_->local_address().port(); }

 private:
  using Key = std::pair<PeerAddress, unsigned>;

  void route(char* datagram, std::size_t size, const PeerAddress& from);
  DatagramConversation* find_or_open(const Key& key, std::string_view datagram);
  void expire(TimePoint now);

  const std::shared_ptr<UdpSocket> socket_;
  const SessionSettings settings_;
  std::map<Key, DatagramConversation*> open_;
  std::map<Key, TimePoint> ended_;  // what is still heard of these is not a beginning
  std::vector<char> buffer_;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_DATAGRAM_ENTRANCE_H_
