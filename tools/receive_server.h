#ifndef TARN_TOOLS_RECEIVE_SERVER_H_
#define TARN_TOOLS_RECEIVE_SERVER_H_

#include <poll.h>

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/clock.h"
#include "tools/conversation.h"
#include "tools/entrance.h"
#include "tools/file_receiver.h"
#include "tools/progress.h"
#include "tools/session_settings.h"

namespace tarn_tool {

// Receives from any number of senders at once. One thread.
class ReceiveServer {
 public:
  struct Options {
    std::optional<std::string> output;  // see FileReceiver
    bool once = false;                  // serve one conversation, turn the others away
    SessionSettings settings;
  };

  ReceiveServer(std::unique_ptr<Entrance> entrance, Options options);

  // Serves until the one conversation is over, or until a signal. Returns the exit status: of the
  // first conversation that went wrong, or of the signal when it cut one short.
  int run();

 private:
  // A peer that has not greeted yet may be anybody: it is neither served nor missed.
  enum class Stage { kUngreeted, kActive, kLingering, kParting, kOver };

  struct Client {
    std::unique_ptr<Conversation> conversation;
    std::unique_ptr<FileReceiver> receiver;  // gone before its conversation
    Stage stage = Stage::kUngreeted;
    TimePoint since = Clock::now();
  };

  void turn();
  std::vector<pollfd> polls() const;
  void take_in();
  void admit(std::unique_ptr<Conversation> conversation);
  void on_message(Client& client, std::string_view bytes, Conversation::Channel channel);
  void greet(Client& client);
  void look_after(Client& client, TimePoint now);
  void look_for_end(Client& client, TimePoint now);
  void conclude(Client& client, const Outcome& outcome, TimePoint now);
  void forget_the_gone(TimePoint now);
  bool has_client(Stage stage) const;
  bool is_served() const;
  void interrupt();
  void part_from_all();
  void show_status(TimePoint now);
  void report(const std::string& line);

  const Options options_;
  const std::unique_ptr<Entrance> entrance_;
  std::list<Client> clients_;
  StatusLine status_line_;
  bool served_ = false;  // the one conversation of `once` was admitted
  int status_ = kSuccess;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_RECEIVE_SERVER_H_
