#ifndef TARN_TOOLS_RECEIVE_SERVER_H_
#define TARN_TOOLS_RECEIVE_SERVER_H_

#include <poll.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/clock.h"
#include "tools/conversation.h"
#include "tools/file_receiver.h"
#include "tools/progress.h"
#include "tools/session_settings.h"
#include "tools/udp_socket.h"

namespace tarn_tool {

// Receives from any number of senders on one socket: a conversation for each pair of address and
// conversation id, begun by a greeting and by nothing else. One thread.
class ReceiveServer {
 public:
  struct Options {
    std::optional<std::string> output;  // see FileReceiver
    bool once = false;                  // serve one conversation, turn the others away
    SessionSettings settings;
  };

  ReceiveServer(std::shared_ptr<UdpSocket> socket, Options options);

  // Serves until the one conversation is over, or until a signal. Returns the exit status: of the
  // first conversation that went wrong, or of the signal when it cut one short.
  int run();

 private:
  using Key = std::pair<PeerAddress, unsigned>;
  enum class Stage { kActive, kLingering, kParting, kOver };

  struct Client {
    std::unique_ptr<Conversation> conversation;
    std::unique_ptr<FileReceiver> receiver;  // gone before its conversation
    Stage stage = Stage::kActive;
  };

  void turn();
  std::vector<pollfd> polls() const;
  void take_datagrams();
  void route(char* datagram, std::size_t size, const PeerAddress& from);
  Client* client_for(const Key& key, std::string_view datagram);
  Client& admit(const Key& key);
  void look_after(Client& client, TimePoint now);
  void conclude(Client& client, const Outcome& outcome, TimePoint now);
  void forget_the_gone(TimePoint now);
  void interrupt();
  void part_from_all();
  void show_status(TimePoint now);
  void report(const std::string& line);

  const std::shared_ptr<UdpSocket> socket_;
  const Options options_;
  std::map<Key, Client> clients_;
  std::map<Key, TimePoint> ended_;  // what is still heard of these is not a beginning
  std::vector<char> buffer_;
  StatusLine status_line_;
  bool served_ = false;  // the one conversation of `once` was admitted
  int status_ = kSuccess;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_RECEIVE_SERVER_H_
