#include "tools/receive_server.h"

#include <fmt/format.h>

#include <algorithm>

#include "tools/interrupt.h"
#include "tools/terminal.h"

namespace tarn_tool {
namespace {

constexpr std::chrono::milliseconds kTick{20};

}  // namespace

ReceiveServer::ReceiveServer(std::unique_ptr<Entrance> entrance, Options options)
    : options_(std::move(options)), entrance_(std::move(entrance)) {
  entrance_->set_admit(
      [this](std::unique_ptr<Conversation> conversation) { admit(std::move(conversation)); });
}

int ReceiveServer::run() {
  while (interrupted_by() == 0) {
    turn();
    if (options_.once && is_served()) return status_;
  }
  interrupt();
  return status_;
}

void ReceiveServer::turn() {
  auto ready = polls();
  wait_ready(ready, kTick);
  take_in();
  const TimePoint now = Clock::now();
  for (Client& client : clients_) look_after(client, now);
  forget_the_gone(now);
  show_status(now);
}

std::vector<pollfd> ReceiveServer::polls() const {
  std::vector<pollfd> polls{{entrance_->fd(), POLLIN, 0}};
  for (const Client& client : clients_) {
    if (client.conversation->fd() >= 0) polls.push_back({client.conversation->fd(), POLLIN, 0});
    const int fd = client.receiver ? client.receiver->waiting_fd() : -1;
    if (fd >= 0) polls.push_back({fd, POLLOUT, 0});
  }
  return polls;
}

void ReceiveServer::take_in() {
  entrance_->take_in();
  for (Client& client : clients_) client.conversation->take_in();
}

void ReceiveServer::admit(std::unique_ptr<Conversation> conversation) {
  Client& client = clients_.emplace_back();
  client.conversation = std::move(conversation);
  client.conversation->set_handler(
      [this, &client](std::string_view bytes, Conversation::Channel channel) {
        on_message(client, bytes, channel);
      });
}

void ReceiveServer::on_message(Client& client, std::string_view bytes,
                               Conversation::Channel channel) {
  if (client.stage == Stage::kUngreeted) {
    const auto message = parse_message(bytes);
    if (message && std::holds_alternative<Hello>(*message)) greet(client);
  }
  if (client.receiver) client.receiver->on_message(bytes, channel);
}

void ReceiveServer::greet(Client& client) {
  if (options_.once && served_) {
    client.conversation->part("serving another sender", Clock::now());
    client.stage = Stage::kParting;
    return;
  }
  served_ = true;
  client.stage = Stage::kActive;
  client.receiver =
      std::make_unique<FileReceiver>(*client.conversation, options_.output, options_.settings,
                                     [this](const std::string& line) { report(line); });
}

void ReceiveServer::look_after(Client& client, TimePoint now) {
  client.conversation->tick(now);
  switch (client.stage) {
    case Stage::kUngreeted:
      if (now - client.since > options_.settings.timeout) client.stage = Stage::kOver;
      break;
    case Stage::kActive:
      look_for_end(client, now);
      break;
    case Stage::kLingering:
      if (client.conversation->may_close()) client.stage = Stage::kOver;
      break;
    case Stage::kParting:
      if (client.conversation->parted()) client.stage = Stage::kOver;
      break;
    case Stage::kOver:
      break;
  }
}

void ReceiveServer::look_for_end(Client& client, TimePoint now) {
  client.receiver->pump(now);
  const auto& outcome = client.receiver->outcome();
  const auto trouble = outcome ? std::nullopt : client.conversation->trouble();
  if (outcome) conclude(client, *outcome, now);
  if (trouble) conclude(client, *trouble, now);
}

void ReceiveServer::conclude(Client& client, const Outcome& outcome, TimePoint now) {
  // Only a sender that came to its end still waits for an acknowledgement.
  client.stage = outcome.tell_peer      ? Stage::kParting
                 : outcome.text.empty() ? Stage::kLingering
                                        : Stage::kOver;
  if (outcome.tell_peer) client.conversation->part(outcome.text, now);
  if (!outcome.text.empty()) {
    status_line_.clear();
    say(stderr, fmt::format("tarn: {}", outcome.text));
  }
  if (status_ == kSuccess) status_ = outcome.status;
}

void ReceiveServer::forget_the_gone(TimePoint now) {
  for (auto client = clients_.begin(); client != clients_.end();) {
    if (client->stage == Stage::kOver) {
      entrance_->forget(*client->conversation, now);
      client = clients_.erase(client);
    } else {
      ++client;
    }
  }
}

bool ReceiveServer::has_client(Stage stage) const {
  return std::any_of(clients_.begin(), clients_.end(),
                     [stage](const Client& client) { return client.stage == stage; });
}

// True when the one conversation has come and gone.
bool ReceiveServer::is_served() const {
  return served_ && std::all_of(clients_.begin(), clients_.end(), [](const Client& client) {
           return client.stage == Stage::kUngreeted;
         });
}

void ReceiveServer::interrupt() {
  const bool cut_short = options_.once || has_client(Stage::kActive);
  status_line_.clear();
  if (cut_short) {
    say(stderr, "tarn: interrupted");
    status_ = kInterrupted + interrupted_by();
  }
  part_from_all();
}

void ReceiveServer::part_from_all() {
  const TimePoint start = Clock::now();
  for (Client& client : clients_) {
    if (client.stage != Stage::kActive) continue;
    client.stage = Stage::kParting;
    client.conversation->part("interrupted", start);
  }
  while (has_client(Stage::kParting)) {
    std::vector<pollfd> nothing;
    wait_ready(nothing, kTick);
    const TimePoint now = Clock::now();
    for (Client& client : clients_) {
      client.conversation->take_in();
      look_after(client, now);
    }
  }
}

void ReceiveServer::show_status(TimePoint now) {
  if (!status_line_.due(now)) return;
  std::string line;
  for (const Client& client : clients_) {
    const std::string text = client.receiver ? client.receiver->status_text(now) : std::string();
    if (!text.empty()) line += (line.empty() ? "" : " | ") + text;
  }
  if (!line.empty()) status_line_.show(line, now);
}

void ReceiveServer::report(const std::string& line) {
  status_line_.clear();
  say(options_.output == "-" ? stderr : stdout, line);
}

}  // namespace tarn_tool
