#include <fmt/format.h>
#include <tarn/io.h>

#include <random>
#include <utility>

#include "tools/attached_conversation.h"
#include "tools/commands.h"
#include "tools/datagram_conversation.h"
#include "tools/file_sender.h"
#include "tools/interrupt.h"
#include "tools/progress.h"
#include "tools/stream_conversation.h"
#include "tools/terminal.h"

namespace tarn_tool {
namespace {

constexpr std::chrono::milliseconds kTick{20};

// Neither 0, which means none, nor the value that stands for no datagram.
unsigned random_conv() {
  std::random_device device;
  std::uniform_int_distribution<std::uint32_t> any(1, 0xfffffffe);
  return any(device);
}

// One conversation, from the greeting to the end.
class SendRun {
 public:
  SendRun(std::unique_ptr<Conversation> conversation, const SendOptions& options)
      : conversation_(std::move(conversation)),
        sender_(*conversation_, options.files, options.settings,
                [this](const std::string& line) { report(line); }) {
    conversation_->set_handler([this](std::string_view bytes, Conversation::Channel channel) {
      sender_.on_message(bytes, channel);
    });
  }

  int run() {
    while (!sender_.outcome() && !trouble_ && interrupted_by() == 0) turn();
    status_line_.clear();
    if (sender_.outcome()) return conclude(*sender_.outcome());
    if (trouble_) return conclude(*trouble_);
    conclude({kSuccess, "interrupted", true});
    return kInterrupted + interrupted_by();
  }

 private:
  void turn() {
    std::vector<pollfd> ready{{conversation_->fd(), POLLIN, 0}};
    if (sender_.waiting_fd() >= 0) ready.push_back({sender_.waiting_fd(), POLLIN, 0});
    wait_ready(ready, more_ ? std::chrono::milliseconds(0) : kTick);
    conversation_->take_in();
    const TimePoint now = Clock::now();
    conversation_->tick(now);
    more_ = sender_.pump(now);
    trouble_ = conversation_->trouble();
    if (status_line_.due(now)) status_line_.show(sender_.status_text(now), now);
  }

  int conclude(const Outcome& outcome) {
    if (!outcome.text.empty()) say(stderr, fmt::format("tarn: {}", outcome.text));
    if (outcome.tell_peer) say_farewell(outcome.text);
    return outcome.status;
  }

  void say_farewell(const std::string& reason) {
    conversation_->part(reason, Clock::now());
    while (!conversation_->parted()) {
      std::vector<pollfd> nothing;
      conversation_->tick(Clock::now());
      wait_ready(nothing, kTick);
      conversation_->take_in();
    }
  }

  void report(const std::string& line) {
    status_line_.clear();
    say(stdout, line);
  }

  StatusLine status_line_;
  const std::unique_ptr<Conversation> conversation_;
  FileSender sender_;
  bool more_ = true;  // there is something to send right away
  std::optional<Outcome> trouble_;
};

std::unique_ptr<Conversation> open_conversation(const SendOptions& options, std::string& error) {
  const SessionSettings& settings = options.settings;
  const bool own_socket = settings.transport == Transport::kDatagrams;
  const auto target = PeerAddress::resolve(options.target, error, !own_socket);
  if (!target) return nullptr;
  const std::string host = target->host();
  const auto port = static_cast<unsigned short>(target->port());
  if (settings.transport == Transport::kStream) {
    return std::make_unique<StreamConversation>(tarn_create_tcp_io(host.c_str(), port),
                                                options.target, settings);
  }
  if (settings.transport == Transport::kAttached) {
    return std::make_unique<AttachedConversation>(tarn_create_udp_io(host.c_str(), port, 0),
                                                  options.target, random_conv(), settings);
  }
  auto socket = UdpSocket::connect(*target, error);
  if (!socket) return nullptr;
  return std::make_unique<DatagramConversation>(std::move(socket), options.target, random_conv(),
                                                settings);
}

}  // namespace

int run_send(const SendOptions& options) {
  std::string error;
  bool usable = true;
  for (const std::string& file : options.files) usable = usable && FileSource::check(file, error);
  if (usable) start_library(options.settings);
  auto conversation = usable ? open_conversation(options, error) : nullptr;
  if (!conversation) {
    say(stderr, fmt::format("tarn: {}", error));
    return kFailure;
  }
  return SendRun(std::move(conversation), options).run();
}

}  // namespace tarn_tool
