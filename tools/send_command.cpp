#include <fmt/format.h>

#include <random>
#include <utility>

#include "tools/commands.h"
#include "tools/conversation.h"
#include "tools/file_sender.h"
#include "tools/interrupt.h"
#include "tools/progress.h"
#include "tools/terminal.h"

namespace tarn_tool {
namespace {

constexpr std::chrono::milliseconds kTick{20};
// Datagrams taken in before the next ones are sent.
constexpr int kBatch = 256;

// Neither 0, which means none, nor the value that stands for no datagram.
unsigned random_conv() {
  std::random_device device;
  std::uniform_int_distribution<std::uint32_t> any(1, 0xfffffffe);
  return any(device);
}

// One conversation, from the greeting to the end.
class SendRun {
 public:
  SendRun(std::shared_ptr<UdpSocket> socket, const SendOptions& options)
      : socket_(std::move(socket)),
        conversation_(socket_, std::nullopt, options.target, random_conv(), options.settings),
        sender_(conversation_, options.files, options.settings,
                [this](const std::string& line) { report(line); }),
        buffer_(UdpSocket::kMaxDatagram) {
    conversation_.set_handler([this](std::string_view bytes, Conversation::Channel channel) {
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
    const bool more = sender_.pump(Clock::now());
    std::vector<pollfd> ready{{socket_->fd(), POLLIN, 0}};
    if (sender_.waiting_fd() >= 0) ready.push_back({sender_.waiting_fd(), POLLIN, 0});
    wait_ready(ready, more ? std::chrono::milliseconds(0) : kTick);
    take_datagrams();
    const TimePoint now = Clock::now();
    conversation_.tick(now);
    trouble_ = conversation_.trouble(now);
    if (status_line_.due(now)) status_line_.show(sender_.status_text(now), now);
  }

  void take_datagrams() {
    PeerAddress from;
    for (int i = 0; i < kBatch; ++i) {
      const auto size = socket_->receive(buffer_.data(), buffer_.size(), from);
      if (!size) return;
      conversation_.input(buffer_.data(), *size, Clock::now());
    }
  }

  int conclude(const Outcome& outcome) {
    if (!outcome.text.empty()) say(stderr, fmt::format("tarn: {}", outcome.text));
    if (outcome.tell_peer) say_farewell(outcome.text);
    return outcome.status;
  }

  void say_farewell(const std::string& reason) {
    conversation_.part(reason, Clock::now());
    while (!conversation_.parted()) {
      std::vector<pollfd> nothing;
      conversation_.tick(Clock::now());
      wait_ready(nothing, kTick);
    }
  }

  void report(const std::string& line) {
    status_line_.clear();
    say(stdout, line);
  }

  const std::shared_ptr<UdpSocket> socket_;
  StatusLine status_line_;
  Conversation conversation_;
  FileSender sender_;
  std::vector<char> buffer_;
  std::optional<Outcome> trouble_;
};

}  // namespace

int run_send(const SendOptions& options) {
  std::string error;
  const auto target = PeerAddress::resolve(options.target, error);
  const auto socket = target ? UdpSocket::connect(*target, error) : nullptr;
  bool usable = socket != nullptr;
  for (const std::string& file : options.files) usable = usable && FileSource::check(file, error);
  if (!usable) {
    say(stderr, fmt::format("tarn: {}", error));
    return kFailure;
  }
  start_library(options.settings);
  return SendRun(socket, options).run();
}

}  // namespace tarn_tool
